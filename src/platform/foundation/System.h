#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

// What the foundation asks of the operating system beyond C++ and POSIX: a port writes this file's functions
// (docs/porting.md). Threads: any. Errors: as told by each. Nothing but WakeUp and a file that was asked for stays
// open.

/// Time since the machine started, the same for all its processes, to a millisecond or finer. It goes on while the
/// machine is suspended, so that a span measured over a rest is a whole one; it never goes back, on whatever threads it
/// is read, and nobody sets it. Always succeeds.
Seconds sinceBoot();

/// The file of the running program, absolute and without links; empty when the system does not tell.
std::filesystem::path executableFile();
/// The name under which the program was started, without folders; never null, and there as long as the process.
const char* programName();
/// The value of a variable of the environment, to be read at once; null without one, and in a process that has more
/// rights than who started it (set-user-ID and the like), whose environment is not to be believed.
const char* trustedEnvironment(const char* name);

/// Whether the caller is the first thread of its process; after a fork that is the one that forked.
bool isFirstThread();
/// The positive number by which the system's tools name the calling thread; no two that live have the same.
std::int64_t threadNumber();
/// Names the calling thread for debuggers: as much from the beginning of the name as the system has room for, which may
/// be nothing. The program's own name, and that of other threads, stays; on the first thread it is not called.
void nameThread(const std::string& name);

/// Fills the bytes, of whatever number, from the system's generator for secrets, which a fork does not repeat. False
/// when it gives none; then the bytes hold anything.
bool fillWithRandom(std::span<std::uint8_t> bytes);

/// Makes a new, empty file for this user alone (mode 0600, whatever the umask allows) and opens it for reading and
/// writing, not to be inherited by other programs; the six X at the end of `name` are replaced by characters that a
/// file name may have everywhere. -1, and errno, when that fails: then there is no new file, and `name` holds anything.
int makeTemporaryFile(std::string& name);
/// Locks an open file against all who have opened it another time, in this process too and for whatever it was opened,
/// until it is closed everywhere: the copies of dup and of forked children count, and closing another opening of the
/// file ends nothing. It ends with its processes at the latest, however they end. What is locked already is locked
/// again. Renaming and removing the file leave the lock alone, and who does not ask for it may read and write. Never
/// waits. False, and errno, when that fails: EWOULDBLOCK while another holds it.
bool tryLockFile(int descriptor);

/// Wakes a thread that sleeps in poll() until one of several descriptors is readable. Lives as long as the process.
///
/// A process that has no descriptor left gets none: the sleeper then sets itself a limit, and asks again each time.
/// What it opens is not inherited by other programs. A forked child may use it, too, or leave it, which does nothing to
/// its parent's. Threads: `signal` any, the others that of the sleeper. Nothing here waits.
class WakeUp {
 public:
  /// Readable from a `signal` until `clear`, or -1; the same one from the first that was made. A descriptor that is
  /// made by a later call knows nothing of earlier signals.
  int descriptor();
  /// Forgets all signals so far, however many there were.
  void clear();
  void signal();

 private:
  std::array<std::atomic<int>, 2> ends_{-1, -1};  ///< the second for a port that needs two
};

/// A span that can be added to the machine's clock without overflow: a year at most, never negative.
inline std::chrono::nanoseconds boundedRealTime(Seconds span) {
  constexpr double kYear = 365 * 86400.0;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds(std::clamp(span.count(), 0.0, kYear)));
}

}  // namespace tarvo::platform
