#include <tarvo/platform/Clock.h>

#include <algorithm>
#include <atomic>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/Timer.h"

namespace tarvo::platform {
namespace {

class SystemClock final : public Clock {
 public:
  Date now() const override { return std::chrono::system_clock::now(); }
  Seconds monotonic() const override { return std::chrono::steady_clock::now().time_since_epoch(); }
  std::optional<Seconds> realTimeUntil(Date date) const override { return date - now(); }
};

struct Installed {
  Mutex mutex;
  std::shared_ptr<Clock> clock GUARDED_BY(mutex) = std::make_shared<SystemClock>();
};

Installed& installed() {
  static Installed* installed = new Installed;
  return *installed;
}

}  // namespace

std::shared_ptr<Clock> Clock::current() {
  MutexLock lock(installed().mutex);
  return installed().clock;
}

void Clock::install(std::shared_ptr<Clock> clock) {
  if (!clock) clock = std::make_shared<SystemClock>();
  {
    MutexLock lock(installed().mutex);
    installed().clock = std::move(clock);
  }
  clockMoved();
}

struct ManualClock::State {
  explicit State(Date first) : start(first), now(first) {}
  const Date start;
  std::atomic<Date> now;
};

ManualClock::ManualClock(Date start) : state_(std::make_unique<State>(start)) {}
ManualClock::~ManualClock() = default;

Date ManualClock::now() const { return state_->now.load(); }
Seconds ManualClock::monotonic() const { return now() - state_->start; }
std::optional<Seconds> ManualClock::realTimeUntil(Date) const { return std::nullopt; }

void ManualClock::advanceTo(Date date) {
  Date before = state_->now.load();
  while (before < date && !state_->now.compare_exchange_weak(before, date)) {
  }
  if (before < date) clockMoved();
}

void ManualClock::advance(Seconds span) { advanceTo(now() + span); }

}  // namespace tarvo::platform
