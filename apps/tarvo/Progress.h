#pragma once

#include <chrono>
#include <cstddef>

#include <tarvo/LocationManager.h>

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

}  // namespace tarvo::cli
