#pragma once

#include <functional>
#include <memory>
#include <string>

namespace tarvo::platform {

/// Runs blocks one at a time, in the order in which they were submitted.
///
/// Threads: any thread may submit. Blocks given to `async` run on a worker thread of the queue's own, which starts
/// with the first of them and lives as long as the queue; the block given to `sync` runs on the caller's thread once
/// its turn has come. A queue that only ever sees `sync` has no thread. While the system has no thread to give, blocks
/// stay in line, in their order: until there is one (see LazyThread), or until a caller of `sync` runs those before its
/// own.
/// Blocks must not throw; out of memory in one, or while it is put in line, ends the process (FatalError.h).
/// Destruction, never from one of its own blocks, waits for what was submitted.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Returns at once, also from inside a block (the new one runs after it). Answers whether the queue has its thread.
  bool async(std::function<void()> block);
  /// Makes the queue's thread if it can; answers whether it is there.
  bool start();

  /// Returns after the block, which waits for all submitted before. On the queue itself this can never end: fatal.
  void sync(const std::function<void()>& block);

  /// As `sync`, but from inside a block of this queue it runs at once, before what is queued.
  void syncReentrant(const std::function<void()>& block);

  /// Whether the calling thread stands in a block of this queue, however deep below others.
  bool isCurrent() const;
  /// Whether the calling thread stands in a block of any queue.
  static bool onAnyQueue();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarvo::platform
