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

/// A recorded trip read from a GPX file (1.0 or 1.1), in file order: the track points; where there are none, the
/// route points; else the waypoints. A value; threads as a std::vector.
struct TARVO_API GpxTrace {
  std::vector<CLLocation> fixes;
  std::size_t untimed = 0;     ///< points without a readable time: skipped
  std::size_t outOfRange = 0;  ///< points whose coordinates are missing, not finite or out of range: skipped
  std::size_t backwards = 0;   ///< fixes that are earlier than the one before; kept

  /// Absent when the file cannot be read, is larger than 256 MiB, is not GPX or has no usable point; `error` then
  /// tells why in one line.
  ///
  /// Speed and course come from the file when it has them (GPX 1.0 elements, or extensions), else from the fix
  /// before (geodesic distance over time, azimuth). Horizontal accuracy is 5 m times hdop, or 10 m; vertical
  /// accuracy is 10 m where the point has an elevation.
  static std::optional<GpxTrace> read(const std::filesystem::path& file, std::string& error);
};

/// Plays a trace into the location service and moves the clock with it.
///
/// The trip begins where the clock stands when it is played, before the first fix or at it.
/// The clock moves only forward and only while all queued work and all transfers are done, so a run repeats.
/// Threads: `play` blocks its caller, which must not be a queue of the library; it pumps the main queue when
/// called from the main thread. Errors: work that does not end is waited for 65 s of real time at each fix, then the
/// play goes on with a line in the system log.
class TARVO_API GpxReplay {
 public:
  GpxReplay(GpxTrace trace, std::shared_ptr<ManualClock> clock);
  GpxReplay(const GpxReplay&) = delete;
  GpxReplay& operator=(const GpxReplay&) = delete;

  /// `speed` 1 is real time, 60 an hour in a minute, absent (or not above zero) as fast as possible.
  /// `progress` is called after each fix, and now and then during a long wait, with the number delivered so far;
  /// answering false ends the play, and so does an exception, which goes on to the caller. With `until` only what is
  /// due by then is played, and the time passes until then; the next call goes on. Returns the number of fixes handed
  /// to the service so far.
  std::size_t play(std::optional<double> speed, const std::function<bool(std::size_t)>& progress,
                   std::optional<Date> until = std::nullopt);

 private:
  GpxTrace trace_;
  std::shared_ptr<ManualClock> clock_;
  std::size_t delivered_ = 0;
};

}  // namespace tarvo::platform
