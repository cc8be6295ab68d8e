#pragma once

#include <atomic>

namespace tarvo::platform {

/// Wakes a thread that sleeps until one of several descriptors is readable. Lives as long as the process.
///
/// A process that has no descriptor left gets none: the sleeper then sets itself a limit, and asks again each time.
/// Threads: `signal` any, the others that of the sleeper.
class WakeUp {
 public:
  /// Readable after a `signal`, or -1. One that comes anew tells nothing of what was signalled before.
  int descriptor();
  void clear();
  void signal();

 private:
  std::atomic<int> descriptor_{-1};
};

}  // namespace tarvo::platform
