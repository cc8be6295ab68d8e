#include "platform/foundation/LazyThread.h"

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <set>
#include <system_error>
#include <utility>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// The objects whose thread could not be made.
struct Missing {
  std::atomic<std::size_t> number{0};
  std::atomic<int> untold{0};  ///< why the last one could not be made
  std::atomic<bool> told{false};
  Mutex mutex;
  std::set<LazyThread*> threads GUARDED_BY(mutex);
};

Missing& missing() {
  static Missing* missing = new Missing;
  return *missing;
}

std::string nameOf(std::string_view label) {
  const auto dot = label.rfind('.');
  return concat("tarvo:", dot == label.npos ? label : label.substr(dot + 1));
}

}  // namespace

struct LazyThread::Native {
  Mutex mutex;
  pthread_t thread GUARDED_BY(mutex) = {};
  bool joinable GUARDED_BY(mutex) = false;  ///< made and not joined
  bool ended GUARDED_BY(mutex) = false;     ///< the body has returned
  Condition end;

  static void* run(void* self) {
    const auto& thread = *static_cast<LazyThread*>(self);
    nameThread(thread.name_);
    faultPoint("thread");
    orOutOfMemory(thread.body_);
    MutexLock lock(thread.native_->mutex);
    thread.native_->ended = true;
    thread.native_->end.notify_all();
    return nullptr;
  }
};

LazyThread::LazyThread(std::string_view label, std::function<void()> body)
    : name_(nameOf(label)), body_(std::move(body)), native_(std::make_unique<Native>()) {}

LazyThread::~LazyThread() {
  {
    MutexLock lock(missing().mutex);
    if (missing().threads.erase(this) != 0) --missing().number;
  }
  join(Seconds::max());
}

int LazyThread::make() {
  MutexLock lock(native_->mutex);
  if (started()) return 0;
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const int failure = ::pthread_create(&native_->thread, nullptr, &Native::run, this);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  native_->joinable = failure == 0;
  started_.store(native_->joinable, std::memory_order_release);
  if (failure == 0)
    missing().told = false;
  else
    missing().untold = failure;
  return failure;
}

bool LazyThread::start() {
  if (started() || make() == 0) return true;
  MutexLock lock(missing().mutex);
  if (missing().threads.insert(this).second) ++missing().number;
  return false;
}

bool LazyThread::join(Seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + boundedRealTime(limit);
  pthread_t thread;
  {
    MutexLock lock(native_->mutex);
    if (!native_->joinable) return true;
    while (!native_->ended) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      native_->end.wait_until(native_->mutex, deadline);
    }
    native_->joinable = false;
    thread = native_->thread;
  }
  ::pthread_join(thread, nullptr);
  return true;
}

void LazyThread::startMissing() {
  Missing& all = missing();
  if (all.number.load() == 0) return;
  if (const int failure = all.untold.exchange(0); failure != 0 && !all.told.exchange(true))
    NSLog(concat("No thread can be made: ", std::generic_category().message(failure), ". Work waits until one can."));
  MutexLock lock(all.mutex);
  for (auto it = all.threads.begin(); it != all.threads.end() && (*it)->make() == 0;) {
    it = all.threads.erase(it);
    --all.number;
  }
}

}  // namespace tarvo::platform
