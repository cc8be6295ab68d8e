#pragma once

#include <functional>
#include <memory>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

class SerialQueue;

/// A block that is handed to a queue once a span of the installed clock has passed; setting the wall clock changes
/// nothing about it.
///
/// Dropping the last pointer or `cancel` ends it; a block already handed over still runs. With a clock that is moved
/// by hand, due blocks have been handed over when the move returns. While the system has no thread to give, they are
/// handed over late: once there is one, or the clock is moved. Threads: any.
class Timer {
 public:
  /// `queue` outlives the timer.
  static std::shared_ptr<Timer> after(Seconds span, SerialQueue& queue, std::function<void()> block);
  virtual ~Timer() = default;
  virtual void cancel() = 0;
};

/// Tells the timers that the installed clock was moved or replaced.
void clockMoved();

}  // namespace tarvo::platform
