#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace tarvo::cli {

/// What a replay hands to the process that goes on with it after a relaunch.
struct Relaunch {
  std::size_t events = 0;  ///< of the script, that have happened
  std::size_t fixes = 0;   ///< of the trace, that were played
  std::uint64_t delivered = 0, batches = 0;
  std::int64_t unsaved = 0;  ///< positions that were lost with earlier processes
  double seconds = 0;        ///< real time so far
  int battery = 1;           ///< state and level
  double batteryLevel = 1;
  std::string home;
  int sandboxPort = 0;  ///< 0: no sandbox

  /// What the process before has left for this one; absent in the first process of a replay.
  static std::optional<Relaunch> take();

  /// Puts a new process with the same command line into the place of this one, which ends as if killed. Returns only
  /// by throwing Failure.
  [[noreturn]] void launch() const;
};

}  // namespace tarvo::cli
