#include <tarvo/platform/Clock.h>

#include <algorithm>
#include <atomic>
#include <utility>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/Timer.h"

namespace tarvo::platform {
namespace {

class SystemClock final : public Clock {
 public:
  Date now() const override { return std::chrono::system_clock::now(); }
  Seconds monotonic() const override { return sinceBoot(); }
  std::optional<Seconds> realTimeUntil(Date date) const override { return date - now(); }
};

/// Each clock is kept for good: somebody may just be reading it.
struct Installed {
  std::atomic<Clock*> latest;
  Mutex mutex;
  std::vector<std::shared_ptr<Clock>> all GUARDED_BY(mutex);

  Installed() { add(std::make_shared<SystemClock>()); }
  void add(std::shared_ptr<Clock> clock) {
    MutexLock lock(mutex);
    latest = clock.get();
    all.push_back(std::move(clock));
  }
};

Installed& installed() {
  static Installed* installed = new Installed;
  return *installed;
}

}  // namespace

std::shared_ptr<Clock> Clock::current() { return {std::shared_ptr<Clock>(), installed().latest.load()}; }

void Clock::install(std::shared_ptr<Clock> clock) {
  installed().add(clock ? std::move(clock) : std::make_shared<SystemClock>());
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
