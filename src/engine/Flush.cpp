#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/MainQueue.h>

#include "engine/EngineParts.h"
#include "platform/foundation/System.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/location/LocationServiceState.h"
#include "settings/Settings.h"

namespace tarvo {

using platform::Seconds;
using platform::WorkInFlight;

namespace {

/// From one look to the next while nothing comes to rest, and from one try without an acknowledgement to the next:
/// twice as long each time.
constexpr Seconds kFirstLook{0.02}, kLongestLook{1}, kFirstPause{1}, kLongestPause{60};

Seconds realTime() { return std::chrono::steady_clock::now().time_since_epoch(); }

/// Nothing is under way that could wake anybody.
void rest(Seconds span) {
  if (platform::isMainThread())
    platform::MainQueue::main().runFor(span);
  else
    std::this_thread::sleep_for(std::chrono::duration_cast<std::chrono::nanoseconds>(span));
}

/// Whether a pass would take the channel now.
bool isFree(const UploadChannel& channel) {
  return !channel.locked() || platform::Clock::current()->now() - channel.takenAt() >= UploadChannel::kExpiry;
}

}  // namespace

/// Queues itself from one queue to the next, then answers.
struct EngineParts::Probe {
  EngineParts& parts;
  std::function<void()> answered;
  int hops = 0;

  void operator()() {
    if (++hops > 3) {
      ++parts.probesEnded_;
      platform::MainQueue::main().async(std::move(answered));
      return;
    }
    const int hop = hops;
    EngineParts& owner = parts;  // outlives this, which is moved
    std::function<void()> next = std::move(*this);
    if (hop == 3)
      owner.store.managedObjectContext().perform(std::move(next));
    else
      (hop == 1 ? owner.state.serialQueue : owner.state.serialQueueLocation).async(std::move(next));
  }
};

FlushResult EngineParts::flush(Seconds limit) {
  const Seconds end = realTime() + platform::boundedRealTime(limit);
  const auto left = [&] { return std::max(end - realTime(), Seconds::zero()); };
  const UploadChannel& channel = Settings::shared().uploadChannel;
  probe({});
  const std::uint64_t probes = probesBegun_;  // this one among them, and they end in their order
  pipeline.endWait();
  std::int64_t goal = -1;  // so many acknowledged, once it is known: the oldest go first
  std::int64_t acknowledged = 0;
  Seconds look = kFirstLook, pause = kFirstPause, nextTry{};
  while (true) {
    const bool isIdle = WorkInFlight::waitUntilIdle(std::min(left(), look));
    const bool timeIsUp = left() <= Seconds::zero();
    look = std::min(2 * look, kLongestLook);
    if (isIdle || probesEnded_ >= probes) {
      LocationManager::SyncStatus status;
      store.managedObjectContext().performAndWait([&] {
        status = engine.syncStatus();
        // What limits take meanwhile was acknowledged.
        const std::int64_t removed = ledger.positions().removed;
        status.stored += removed;
        status.acknowledged += removed;
      });
      if (!status.storeAvailable) return FlushResult::storeUnavailable;
      if (goal < 0) goal = status.stored + status.unsaved;
      if (status.acknowledged >= goal || status.unsent + status.awaiting + status.unsaved == 0)
        return FlushResult::delivered;
      // A batch under way may still be acknowledged.
      if (const auto obstacle = pipeline.obstacle();
          obstacle && (isIdle || timeIsUp || obstacle == FlushResult::modeForbids))
        return *obstacle;
      const Seconds now = realTime();
      if (status.acknowledged > std::exchange(acknowledged, status.acknowledged)) {
        pause = kFirstPause;
        nextTry = now;
      }
      if (!timeIsUp && now >= nextTry && isFree(channel) && !pipeline.nextTry()) {
        if (status.unsaved > 0) checkpoint();
        pipeline.startPass(UploadGate::Pass::afterFullBatch);
        nextTry = now + pause;
        pause = std::min(2 * pause, kLongestPause);
        look = kFirstLook;
        continue;
      }
    }
    if (timeIsUp) return FlushResult::timeIsUp;
    if (isIdle) rest(std::min(left(), look));
  }
}

void EngineParts::probe(std::function<void()>&& answered) {
  ++probesBegun_;
  platform::LocationServiceState::shared().afterDeliveries(Probe{*this, std::move(answered)});
}

}  // namespace tarvo
