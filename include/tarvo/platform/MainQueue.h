/// @file
/// The queue of the process's first thread.
#pragma once

#include <cstddef>
#include <functional>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// The queue of the process's first thread. A host that has an event loop polls `fileDescriptor` and calls
/// `runPending`; one that has none calls `runFor`.
///
/// Threads: `async` from any; the others only from the main thread. Errors: an exception that leaves a block ends the
/// process.
class TARVO_API MainQueue {
 public:
  /// The one of the process.
  static MainQueue& main();

  /// Puts the block at the end of the queue and returns at once.
  void async(std::function<void()> block);

  /// Readable while blocks wait; owned by the queue.
  int fileDescriptor() const;
  /// Runs what waits now, not what those blocks add. Returns the number of blocks run.
  std::size_t runPending();
  /// Runs blocks as they come for `span` of real time.
  void runFor(Seconds span);

 private:
  MainQueue();
  struct State;
  State& state_;
};

/// Whether the caller runs on the process's first thread.
TARVO_API bool isMainThread();

}  // namespace tarvo::platform
