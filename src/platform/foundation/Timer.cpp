#include "platform/foundation/Timer.h"

#include <chrono>
#include <vector>

#include <tarvo/platform/Clock.h>

#include "platform/foundation/LazyThread.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"

namespace tarvo::platform {
namespace {

class PendingTimer;

/// All timers of the process. Its thread starts with the first timer and sleeps until the earliest is due; while a
/// clock is moved by hand it sleeps until told.
class TimerTable {
 public:
  static TimerTable& shared() {
    static TimerTable* table = new TimerTable;
    return *table;
  }

  void add(const std::shared_ptr<PendingTimer>& timer) EXCLUDES(mutex_);
  void handOverDue() EXCLUDES(mutex_);

 private:
  void run();
  std::optional<Seconds> untilEarliest() REQUIRES(mutex_);

  Mutex mutex_;
  Condition changed_;
  bool awake_ GUARDED_BY(mutex_) = false;
  std::vector<std::weak_ptr<PendingTimer>> timers_ GUARDED_BY(mutex_);
  LazyThread thread_{"timer", [this] { run(); }};
};

class PendingTimer final : public Timer {
 public:
  PendingTimer(Seconds moment, SerialQueue& queue, std::function<void()> block)
      : due(moment), queue_(queue), block_(std::move(block)) {}

  void cancel() override {
    MutexLock lock(mutex_);
    block_ = nullptr;
  }

  void handOver() {
    std::function<void()> block;
    {
      MutexLock lock(mutex_);
      block.swap(block_);
    }
    faultPoint("timer");
    if (block) queue_.async(std::move(block));
  }

  const Seconds due;  ///< of the clock's monotonic time

 private:
  SerialQueue& queue_;
  Mutex mutex_;
  std::function<void()> block_ GUARDED_BY(mutex_);
};

void TimerTable::add(const std::shared_ptr<PendingTimer>& timer) {
  {
    MutexLock lock(mutex_);
    timers_.push_back(timer);
    awake_ = true;
  }
  thread_.start();
  changed_.notify_one();
}

void TimerTable::handOverDue() {
  std::vector<std::shared_ptr<PendingTimer>> due;
  const Seconds now = Clock::current()->monotonic();
  {
    MutexLock lock(mutex_);
    std::erase_if(timers_, [&](const std::weak_ptr<PendingTimer>& weak) {
      auto timer = weak.lock();
      if (timer && timer->due > now) return false;
      if (timer) due.push_back(std::move(timer));
      return true;
    });
    awake_ = true;
  }
  changed_.notify_one();
  for (const auto& timer : due) timer->handOver();
}

std::optional<Seconds> TimerTable::untilEarliest() {
  std::optional<Seconds> earliest;
  for (const auto& weak : timers_) {
    const auto timer = weak.lock();
    if (timer && (!earliest || timer->due < *earliest)) earliest = timer->due;
  }
  if (!earliest) return std::nullopt;
  const auto clock = Clock::current();
  return clock->realTimeUntil(clock->now() + (*earliest - clock->monotonic()));
}

void TimerTable::run() {
  while (true) {
    mutex_.lock();
    while (!awake_) {
      const auto left = untilEarliest();
      if (left && *left <= Seconds(0)) break;
      if (!left) {
        changed_.wait(mutex_);
      } else {
        // A machine that was suspended meanwhile is noticed within a minute.
        const auto bounded = std::min(*left, Seconds(60));
        changed_.wait_for(mutex_, std::chrono::ceil<std::chrono::milliseconds>(bounded));
        break;
      }
    }
    awake_ = false;
    const bool due = untilEarliest().value_or(Seconds(1)) <= Seconds(0);
    mutex_.unlock();
    if (due) handOverDue();
  }
}

}  // namespace

std::shared_ptr<Timer> Timer::after(Seconds span, SerialQueue& queue, std::function<void()> block) {
  auto timer = std::make_shared<PendingTimer>(Clock::current()->monotonic() + span, queue, std::move(block));
  TimerTable::shared().add(timer);
  return timer;
}

void clockMoved() { TimerTable::shared().handOverDue(); }

}  // namespace tarvo::platform
