#include "platform/foundation/SerialQueue.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <thread>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/LazyThread.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/WorkInFlight.h"

namespace tarvo::platform {
namespace {

/// How many blocks of queues the calling thread is inside, one within the other.
thread_local int queuesHeld = 0;

}  // namespace

struct SerialQueue::State {
  /// A caller that waits for its turn.
  struct Turn {
    Condition came;
    bool given = false;
  };
  /// A block in line, or a waiting caller that brings its own.
  struct Entry {
    std::function<void()> block;
    Turn* turn = nullptr;
  };

  explicit State(std::string name) : label(std::move(name)) {}

  const std::string label;
  /// The thread whose block runs; each thread only has to recognise itself.
  std::atomic<std::thread::id> holder;
  Mutex mutex;
  std::deque<Entry> line GUARDED_BY(mutex);
  std::size_t turnsInLine GUARDED_BY(mutex) = 0;
  bool busy GUARDED_BY(mutex) = false;  ///< a block runs, or a waiting caller has been given its turn
  bool ending GUARDED_BY(mutex) = false;
  Condition work;     ///< the worker may run the first in line
  Condition drained;  ///< nothing runs, and nothing is in line unless no worker is there for it
  LazyThread worker{label, [this] { workUntilEnd(); }};

  bool isHeld() const { return holder.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

  void run(const std::function<void()>& block) noexcept {
    holder.store(std::this_thread::get_id(), std::memory_order_relaxed);
    ++queuesHeld;
    orOutOfMemory(block);
    --queuesHeld;
    holder.store({}, std::memory_order_relaxed);
  }

  /// Ends a turn: whoever is first in line is next.
  void passOn() REQUIRES(mutex) {
    busy = false;
    if (line.empty()) {
      drained.notify_all();
    } else if (Turn* turn = line.front().turn) {
      busy = true;
      line.pop_front();
      --turnsInLine;
      turn->given = true;
      turn->came.notify_one();
    } else if (worker.start()) {
      work.notify_one();
    } else if (turnsInLine > 0) {
      // Without a worker a caller that waits behind the blocks runs them.
      std::find_if(line.begin(), line.end(), [](const Entry& entry) { return entry.turn; })->turn->came.notify_one();
    } else {
      drained.notify_all();  // or whoever waits for the end of the queue
    }
  }

  /// Whether nobody runs what is first in line unless the caller does.
  bool isLeftToCaller() REQUIRES(mutex) {
    return !busy && !line.empty() && line.front().turn == nullptr && !worker.start();
  }

  /// Moves out the blocks that stand in line before the first waiting caller: nearly always the whole line.
  void takeBlocks(std::deque<Entry>& blocks) REQUIRES(mutex) {
    if (turnsInLine == 0) return line.swap(blocks);
    for (; line.front().turn == nullptr; line.pop_front()) blocks.push_back(std::move(line.front()));
  }

  /// Runs them, with the mutex given away meanwhile. `blocks` is empty before and after.
  void runBlocks(std::deque<Entry>& blocks) REQUIRES(mutex) {
    busy = true;
    takeBlocks(blocks);
    mutex.unlock();
    const auto number = static_cast<std::int64_t>(blocks.size());
    // What a block held is gone before the next one runs.
    for (; !blocks.empty(); blocks.pop_front()) run(blocks.front().block);
    mutex.lock();
    passOn();
    mutex.unlock();
    WorkInFlight::end(number);
    mutex.lock();
  }

  void workUntilEnd() {
    std::deque<Entry> blocks;
    mutex.lock();
    while (true) {
      while (!ending && (busy || line.empty() || line.front().turn != nullptr)) work.wait(mutex);
      if (ending) break;
      runBlocks(blocks);
    }
    mutex.unlock();
  }
};

SerialQueue::SerialQueue(std::string label) : state_(std::make_unique<State>(std::move(label))) {}

SerialQueue::~SerialQueue() {
  State& state = *state_;
  std::deque<State::Entry> blocks;
  state.mutex.lock();
  while (state.busy || !state.line.empty()) {
    if (state.isLeftToCaller())
      state.runBlocks(blocks);
    else
      state.drained.wait(state.mutex);
  }
  state.ending = true;
  state.mutex.unlock();
  state.work.notify_all();
}

bool SerialQueue::async(std::function<void()> block) {
  WorkInFlight::begin();
  State& state = *state_;
  bool hasThread;
  faultPoint("async");
  {
    MutexLock lock(state.mutex);
    try {
      state.line.push_back({std::move(block), nullptr});
    } catch (const std::bad_alloc&) {
      outOfMemory();
    }
    hasThread = state.worker.start();
    if (!state.busy && state.line.size() == 1) state.work.notify_one();
  }
  LazyThread::startMissing();
  return hasThread;
}

bool SerialQueue::start() { return state_->worker.start(); }

void SerialQueue::sync(const std::function<void()>& block) {
  State& state = *state_;
  if (state.isHeld()) fatalError("sync onto queue " + state.label + " from one of its own blocks can never end");
  faultPoint("sync");
  state.mutex.lock();
  if (state.busy || !state.line.empty()) {
    State::Turn turn;
    try {
      state.line.push_back({{}, &turn});
    } catch (const std::bad_alloc&) {
      outOfMemory();
    }
    ++state.turnsInLine;
    std::deque<State::Entry> blocks;
    while (!turn.given) {
      if (state.isLeftToCaller())
        state.runBlocks(blocks);
      else
        turn.came.wait(state.mutex);
    }
  } else {
    state.busy = true;
  }
  state.mutex.unlock();
  state.run(block);
  state.mutex.lock();
  state.passOn();
  state.mutex.unlock();
}

void SerialQueue::syncReentrant(const std::function<void()>& block) {
  if (state_->isHeld())
    block();
  else
    sync(block);
}

bool SerialQueue::isCurrent() const { return state_->isHeld(); }
bool SerialQueue::onAnyQueue() { return queuesHeld > 0; }

}  // namespace tarvo::platform
