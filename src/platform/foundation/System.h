#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

// What the foundation asks of the operating system beyond C++ and POSIX: a port writes this file's functions
// (docs/porting.md). Threads: any. Errors: as told by each.

/// Time since the machine started, also while it was suspended: a span that is measured over a rest is a whole one.
Seconds sinceBoot();

/// The file of the running program; empty when the system does not tell.
std::filesystem::path executableFile();
/// The name under which the program was started, without folders.
const char* programName();

/// Whether the caller is the first thread of its process; after a fork that is the one that forked.
bool isFirstThread();
/// The number by which the system's tools name the calling thread.
std::int64_t threadNumber();
/// Names the calling thread for debuggers, as far as the system has room for it.
void nameThread(const std::string& name);

/// Fills the bytes from the system's generator for secrets. False when it gives none.
bool fillWithRandom(std::span<std::uint8_t> bytes);

/// Makes a new file for this user alone and opens it, not to be inherited by other programs; the six X at the end of
/// `name` are replaced. -1, and errno, when that fails.
int makeTemporaryFile(std::string& name);
/// Locks an open file against all who have opened it another time, until it is closed everywhere; never waits. False,
/// and errno, when that fails: EWOULDBLOCK while another holds it.
bool tryLockFile(int descriptor);

/// Wakes a thread that sleeps in poll() until one of several descriptors is readable. Lives as long as the process.
///
/// A process that has no descriptor left gets none: the sleeper then sets itself a limit, and asks again each time.
/// Threads: `signal` any, the others that of the sleeper.
class WakeUp {
 public:
  /// Readable after a `signal`, or -1. A descriptor that is made by a later call knows nothing of earlier signals.
  int descriptor();
  /// Forgets all signals so far.
  void clear();
  void signal();

 private:
  std::atomic<int> descriptor_{-1};
};

/// A span that can be added to the machine's clock without overflow: a year at most, never negative.
inline std::chrono::nanoseconds boundedRealTime(Seconds span) {
  constexpr double kYear = 365 * 86400.0;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds(std::clamp(span.count(), 0.0, kYear)));
}

}  // namespace tarvo::platform
