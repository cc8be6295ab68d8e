#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include <tarvo/LocationManager.h>
#include <tarvo/platform/Clock.h>

namespace tarvo::cli {

/// The progress line on standard error: rewritten in place on a terminal, one line per 1000 fixes elsewhere.
class Progress {
 public:
  /// `earlier` of the fixes were played by another process. `inPlace` is false also on a terminal that shows other
  /// lines in between.
  Progress(LocationManager& engine, std::size_t earlier, std::size_t total, bool inPlace);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Shows a line when it is time for the next.
  void update(std::size_t fixes);
  /// Shows the line of where things stand now.
  void show();

  /// Real time since construction.
  double seconds() const;

 private:
  using RealTime = std::chrono::steady_clock;

  LocationManager& engine_;
  const std::size_t earlier_;
  const std::size_t total_;
  const bool inPlace_;
  const RealTime::time_point start_ = RealTime::now();
  RealTime::time_point shown_ = start_;
  double playSeconds_ = 0;
  std::size_t fixes_ = earlier_;
};

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
