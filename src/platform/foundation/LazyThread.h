#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// A thread of the library, made when it is first needed. It blocks all signals: they belong to the host's threads,
/// whose handlers must never run in the midst of the library's work.
///
/// A system that has no thread to give is no error that anybody has to handle: what waits for the thread goes on
/// waiting, and it is tried again by each `start` and each `startMissing`.
///
/// Threads: any may call; `join` and the destructor once. Errors: never thrown.
class LazyThread {
 public:
  /// Debuggers show the label from its last dot on, as far as there is room. The body must not throw, and has been told
  /// to end when the object goes.
  LazyThread(std::string_view label, std::function<void()> body);
  ~LazyThread();
  LazyThread(const LazyThread&) = delete;
  LazyThread& operator=(const LazyThread&) = delete;

  /// Answers whether the thread is there; makes it if it can. Cheap when it is; calls nothing of the host's.
  bool start();
  bool started() const { return started_.load(std::memory_order_acquire); }

  /// Waits for the end of the body, `limit` of real time at most, and answers whether there is no thread any longer.
  bool join(Seconds limit);

  /// Makes the threads, of all objects, that could not be made before. The system log is told of the first failure
  /// after each success. Cheap when none is missing.
  static void startMissing();

 private:
  struct Native;
  /// Answers 0 once the thread is there, or the errno.
  int make();

  const std::string name_;
  const std::function<void()> body_;
  std::atomic<bool> started_{false};
  const std::unique_ptr<Native> native_;
};

}  // namespace tarvo::platform
