#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include <tarvo/platform/Clock.h>

namespace tarvo::unit {

/// The day on which this program was built: no clock that is right shows an earlier time.
platform::Date dayOfBuild();

/// The clock of a device that may start without knowing the time: shows what the machine's own shows while that is
/// plausible, and otherwise what a receiver has told, counted on by the monotonic clock. While neither is, it shows
/// what the machine's shows, and `isPlausible` is false.
///
/// Threads: any. Errors: none.
class DeviceClock final : public platform::Clock {
 public:
  /// No time before `earliest` is plausible.
  explicit DeviceClock(std::shared_ptr<const platform::Clock> machine, platform::Date earliest = dayOfBuild());

  /// The time of a fix that has just come. One that is not plausible is left out, and one that lies less than a minute
  /// behind what is shown too: fixes take their time to come.
  void learn(platform::Date fixTime);
  /// Whether the time that is shown can be right.
  bool isPlausible() const;

  platform::Date now() const override;
  platform::Seconds monotonic() const override { return machine_->monotonic(); }
  std::optional<platform::Seconds> realTimeUntil(platform::Date date) const override;

 private:
  const std::shared_ptr<const platform::Clock> machine_;
  const platform::Date earliest_;
  mutable std::mutex mutex_;
  /// What the receiver's clock showed when the monotonic one showed 0.
  std::optional<platform::Date> receiverStart_;
};

}  // namespace tarvo::unit
