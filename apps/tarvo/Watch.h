#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <tarvo/LocationManager.h>
#include <tarvo/platform/Clock.h>

namespace tarvo::cli {

/// Shows on standard error, with the trip's time, what the engine does: switches of the service, regions armed and
/// left, and what it stores for events or by another method than before.
///
/// Threads: `message` any, the rest the main thread.
class Watch {
 public:
  explicit Watch(std::shared_ptr<platform::ManualClock> clock) : clock_(std::move(clock)) {}

  /// Takes a message of the SDK's log.
  void message(std::string_view text);
  /// Shows what was stored while the clock stood where it stands.
  void stored(LocationManager& engine);
  /// Shows a line of its own.
  void show(const std::string& text);

 private:
  const std::shared_ptr<platform::ManualClock> clock_;
  std::mutex mutex_;
  std::int64_t nextIndex_ = 0;
  std::string method_;
};

}  // namespace tarvo::cli
