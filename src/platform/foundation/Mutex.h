#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/foundation/FaultPoint.h"

// Clang checks these statically (-Wthread-safety); other compilers see nothing.
#if defined(__clang__)
#define TARVO_TSA(x) __attribute__((x))
#else
#define TARVO_TSA(x)
#endif
#define GUARDED_BY(m) TARVO_TSA(guarded_by(m))
#define REQUIRES(...) TARVO_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TARVO_TSA(locks_excluded(__VA_ARGS__))

namespace tarvo::platform {

/// std::mutex as a capability that clang's thread-safety analysis can follow.
class TARVO_TSA(capability("mutex")) Mutex {
 public:
  void lock() TARVO_TSA(acquire_capability()) {
    faultPoint("lock");
    mutex_.lock();
  }
  void unlock() TARVO_TSA(release_capability()) { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// Holds a Mutex for a scope.
class TARVO_TSA(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TARVO_TSA(acquire_capability(mutex)) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TARVO_TSA(release_capability()) { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

/// A condition that is waited for with the Mutex held: `while (!ready) condition.wait(mutex);`
class Condition {
 public:
  void wait(Mutex& mutex) REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait(held.lock);
  }
  template <class Time>
  void wait_until(Mutex& mutex, const Time& deadline) REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait_until(held.lock, deadline);
  }
  template <class Span>
  void wait_for(Mutex& mutex, const Span& span) REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait_for(held.lock, span);
  }
  void notify_one() {
    faultPoint("notify");
    condition_.notify_one();
  }
  void notify_all() {
    faultPoint("notify");
    condition_.notify_all();
  }

 private:
  /// The caller's lock in the form that std::condition_variable takes.
  struct Held {
    explicit Held(Mutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
    ~Held() { lock.release(); }
    std::unique_lock<std::mutex> lock;
  };

  std::condition_variable condition_;
};

}  // namespace tarvo::platform
