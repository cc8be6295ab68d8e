#include <tarvo/platform/MainQueue.h>

#include <poll.h>
#include <pthread.h>

#include <chrono>
#include <deque>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/WorkInFlight.h"

namespace tarvo::platform {

struct MainQueue::State {
  WakeUp wakeUp;
  const int descriptor = wakeUp.descriptor();
  Mutex mutex;
  std::deque<std::function<void()>> blocks GUARDED_BY(mutex);
};

MainQueue::MainQueue() : state_(*new State) {
  if (state_.descriptor < 0) fatalError("no event descriptor for the main queue");
}

MainQueue& MainQueue::main() {
  static MainQueue* queue = new MainQueue;
  return *queue;
}

void MainQueue::async(std::function<void()> block) {
  // An empty block only wakes whoever polls; it is no work that anybody would wait for.
  if (block) {
    WorkInFlight::begin();
    faultPoint("main");
    MutexLock lock(state_.mutex);
    try {
      state_.blocks.push_back(std::move(block));
    } catch (const std::bad_alloc&) {
      outOfMemory();
    }
  }
  state_.wakeUp.signal();
}

int MainQueue::fileDescriptor() const { return state_.descriptor; }

std::size_t MainQueue::runPending() {
  state_.wakeUp.clear();
  std::deque<std::function<void()>> blocks;
  {
    MutexLock lock(state_.mutex);
    blocks.swap(state_.blocks);
  }
  const std::size_t number = blocks.size();
  while (!blocks.empty()) {
    callHost("a block of the main queue", blocks.front());
    blocks.pop_front();
    WorkInFlight::end();
  }
  return number;
}

void MainQueue::runFor(Seconds span) {
  const auto deadline = std::chrono::steady_clock::now() + boundedRealTime(span);
  while (true) {
    runPending();
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= left.zero()) return;
    pollfd readable{state_.descriptor, POLLIN, 0};
    // A day at most at once: poll takes an int of milliseconds.
    const auto bounded = std::min<std::chrono::nanoseconds>(left, std::chrono::hours(24));
    ::poll(&readable, 1, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(bounded).count()));
  }
}

bool isMainThread() {
  // The answer stays until a fork, whose child has one thread: its main thread.
  enum class Answer : char { unknown, no, yes };
  thread_local Answer answer = Answer::unknown;
  static const bool toldOfForks = ::pthread_atfork(nullptr, nullptr, [] { answer = Answer::yes; }) == 0;
  if (answer == Answer::unknown || !toldOfForks) answer = isFirstThread() ? Answer::yes : Answer::no;
  return answer == Answer::yes;
}

}  // namespace tarvo::platform
