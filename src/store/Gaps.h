#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <tarvo/Health.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/LocationService.h>

namespace tarvo {

/// Finds the spans in which this process has stored no position, and why.
///
/// Such a span ends with the next position, or when what keeps positions away changes; if it was longer than kLongest
/// it is a gap then. A shorter one that ends by a change goes on under its new cause. How long it was, monotonic time
/// says, and wall time where it ended: setting the clock makes no gap, hides none, and turns none around.
/// Threads: one at a time.
class Gaps {
 public:
  using List = std::vector<Health::Gap>;
  static constexpr platform::Seconds kLongest{300};  ///< silence that is no gap
  static constexpr std::size_t kMost = 32;

  /// A moment on both clocks, and what had become of all fixes by then.
  struct Moment {
    platform::Date wall;
    platform::Seconds monotonic{0};
    platform::LocationService::Statistics fixes;

    /// The wall time of an earlier moment, by the clock as it is now if that was set in between.
    platform::Date wallOf(const Moment& earlier) const;
  };

  /// The process starts, and nothing collects yet.
  explicit Gaps(const Moment& start) : since_(start) {}

  /// What keeps positions away from now on; absent when nothing is known to.
  void obstacleIs(std::optional<GapCause> obstacle, const Moment& now);
  /// A position is being stored. Answers whether that has ended a gap.
  bool didStore(std::optional<GapCause> obstacle, const Moment& now);

  /// Those that have ended, the latest kMost, oldest first.
  const List& ended() const { return ended_; }
  /// The one that lasts, if any.
  std::optional<Health::Gap> open(const Moment& now) const;

 private:
  bool isLong(const Moment& now) const;
  GapCause cause(const Moment& now) const;
  void end(const Moment& now);

  Moment since_;
  std::optional<GapCause> obstacle_ = GapCause::stopped;
  List ended_;
};

/// Appends a gap to a list and drops what is too much, the oldest first.
void append(Gaps::List& gaps, Health::Gap gap);

}  // namespace tarvo
