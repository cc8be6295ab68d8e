#include "platform/foundation/WorkInFlight.h"

#include <poll.h>

#include <atomic>
#include <chrono>

#include <tarvo/platform/MainQueue.h>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/LazyThread.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/System.h"

namespace tarvo::platform {
namespace {

struct Count {
  std::atomic<std::int64_t> value{0};
  std::atomic<int> waiters{0};
  Mutex mutex;
  Condition becameIdle;
};

Count& count() {
  static Count* count = new Count;
  return *count;
}

}  // namespace

void WorkInFlight::begin() { count().value.fetch_add(1); }

void WorkInFlight::end(std::int64_t number) {
  Count& state = count();
  if (state.value.fetch_sub(number) != number || state.waiters.load() == 0) return;
  // Passing through the lock keeps the waiter from missing this between its test and its wait.
  { MutexLock lock(state.mutex); }
  state.becameIdle.notify_all();
  // A waiter on the main thread sleeps in poll().
  MainQueue::main().async({});
}

bool WorkInFlight::idle() { return count().value.load() == 0; }

bool WorkInFlight::waitUntilIdle(Seconds limit) {
  if (SerialQueue::onAnyQueue()) fatalError("waiting for idle inside a block of a queue, which would wait for itself");
  Count& state = count();
  const auto deadline = std::chrono::steady_clock::now() + boundedRealTime(limit);
  const bool onMain = isMainThread();
  struct Waiting {
    explicit Waiting(std::atomic<int>& counter) : waiters(counter) { waiters.fetch_add(1); }
    ~Waiting() { waiters.fetch_sub(1); }
    std::atomic<int>& waiters;
  } waiting(state.waiters);

  while (true) {
    if (onMain) MainQueue::main().runPending();
    if (idle()) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    LazyThread::startMissing();
    if (onMain) {
      pollfd readable{MainQueue::main().fileDescriptor(), POLLIN, 0};
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
      if (!idle()) ::poll(&readable, 1, static_cast<int>(std::min<std::int64_t>(left, 1000)));
    } else {
      state.mutex.lock();
      if (!idle()) state.becameIdle.wait_until(state.mutex, std::min(deadline, now + std::chrono::seconds(1)));
      state.mutex.unlock();
    }
  }
}

}  // namespace tarvo::platform
