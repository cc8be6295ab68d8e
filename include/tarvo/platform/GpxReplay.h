/// @file
/// Recorded trips, and playing them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Clock.h>

namespace tarvo::platform {

/// A recorded trip, read from a GPX file (1.0 or 1.1): its track points in the order of the file, or its route points
/// if it has no track, or else its waypoints. A plain value; threads as a std::vector.
struct TARVO_API GpxTrace {
  std::vector<CLLocation> fixes;  ///< in the order of the file
  std::size_t untimed = 0;        ///< points that were left out because they have no readable time
  std::size_t outOfRange = 0;     ///< points that were left out because they have no valid coordinates
  std::size_t backwards = 0;      ///< fixes that are earlier than the one before them; they are kept

  /// Reads a file. Absent when it cannot be read, is larger than 256 MiB, is not GPX or has no usable point; `error`
  /// then says why in one line.
  ///
  /// Speed and course are those of the file when it has them (GPX 1.0 elements, or extensions); otherwise they are
  /// worked out from the fix before. Horizontal accuracy is 5 m times the point's hdop, or 10 m without one; vertical
  /// accuracy is 10 m where the point has an elevation.
  static std::optional<GpxTrace> read(const std::filesystem::path& file, std::string& error);
};

/// Plays a trace into the location service and moves the installed clock along with it.
///
/// Install the clock and set it to the time of the first fix, or before it, ahead of the play. The clock moves only
/// forward, and only while all queued work and all transfers are done, so that plays of a trace give the same. In the
/// background they may differ by a few positions: what several queues make of one fix is not ordered.
/// Threads: `play` blocks its caller, which must not be on a queue of the library; on the main thread it runs the
/// blocks of the main queue meanwhile. Errors: work that does not end is waited for 65 s of real time, up to three
/// times at each fix; then the play goes on, with a line in the system log.
class TARVO_API GpxReplay {
 public:
  /// A play of `trace` that moves `clock`, which has to be the installed one.
  GpxReplay(GpxTrace trace, std::shared_ptr<ManualClock> clock);
  GpxReplay(const GpxReplay&) = delete;
  GpxReplay& operator=(const GpxReplay&) = delete;

  /// Delivers the fixes from where the play before ended, and returns how many have been delivered in all.
  ///
  /// `speed`: 1 is real time, 60 an hour in a minute; as fast as possible when absent or not above zero.
  /// `progress`, which may be empty, is called with the number delivered so far: after each fix, and about every 200 ms
  /// during a wait. When it answers false the play ends there; an exception ends it too and reaches the caller.
  /// `until`: plays only the fixes that are due by then and moves the clock on to that moment.
  std::size_t play(std::optional<double> speed, const std::function<bool(std::size_t)>& progress,
                   std::optional<Date> until = std::nullopt);

 private:
  GpxTrace trace_;
  std::shared_ptr<ManualClock> clock_;
  std::size_t delivered_ = 0;
};

}  // namespace tarvo::platform
