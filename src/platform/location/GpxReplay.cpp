#include <tarvo/platform/GpxReplay.h>

#include <algorithm>
#include <chrono>

#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/MainQueue.h>
#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/WorkInFlight.h"

namespace tarvo::platform {
namespace {

using RealTime = std::chrono::steady_clock;

/// Longer than the time-out of a silent transfer.
constexpr std::chrono::seconds kLongestWork{65};

/// The caller is asked at least this often whether to go on.
constexpr std::chrono::milliseconds kLongestSilence{200};

/// False when `goOn` has ended the wait.
template <class GoOn>
bool waitUntilIdle(const GoOn& goOn) {
  const RealTime::time_point end = RealTime::now() + kLongestWork;
  while (!WorkInFlight::waitUntilIdle(kLongestSilence)) {
    if (!goOn()) return false;
    if (RealTime::now() < end) continue;
    NSLog("replay: work is still under way after 65 s, going on");
    break;
  }
  return true;
}

/// Lets real time pass; the main thread runs its queue meanwhile.
void waitUntil(RealTime::time_point due) {
  if (isMainThread()) {
    const Seconds left = due - RealTime::now();
    if (left > Seconds(0)) MainQueue::main().runFor(left);
    return;
  }
  Mutex mutex;
  Condition never;
  MutexLock lock(mutex);
  while (RealTime::now() < due) never.wait_until(mutex, due);
}

}  // namespace

GpxReplay::GpxReplay(GpxTrace trace, std::shared_ptr<ManualClock> clock)
    : trace_(std::move(trace)), clock_(std::move(clock)) {}

std::size_t GpxReplay::play(std::optional<double> speed, const std::function<bool(std::size_t)>& progress,
                            std::optional<Date> until) {
  const bool paced = speed && *speed > 0;
  RealTime::time_point due = RealTime::now();
  const auto goOn = [&] { return !progress || progress(delivered_); };
  const auto reach = [&](Date moment) {
    if (paced) {
      due += boundedRealTime((moment - clock_->now()) / *speed);
      for (auto now = RealTime::now(); now < due; now = RealTime::now()) {
        waitUntil(std::min<RealTime::time_point>(due, now + kLongestSilence));
        if (!goOn()) return false;
      }
    }
    if (!waitUntilIdle(goOn)) return false;
    clock_->advanceTo(moment);
    // Timers that became due run before anything else happens.
    return waitUntilIdle(goOn);
  };
  while (delivered_ < trace_.fixes.size()) {
    const CLLocation& fix = trace_.fixes[delivered_];
    if (until && fix.timestamp > *until) break;
    if (!reach(fix.timestamp)) return delivered_;
    LocationService::shared().deliver({fix});
    ++delivered_;
    if (!waitUntilIdle(goOn) || !goOn()) return delivered_;
  }
  if (until) reach(*until);
  return delivered_;
}

}  // namespace tarvo::platform
