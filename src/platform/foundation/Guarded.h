#pragma once

#include <utility>

#include "platform/foundation/Mutex.h"

namespace tarvo::platform {

/// A value that several threads read and write, one at a time. Threads: any; each operation is one step.
template <class T>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(T value) : value_(std::move(value)) {}

  T get() const {
    MutexLock lock(mutex_);
    return value_;
  }
  void set(T value) { exchange(std::move(value)); }
  /// Answers the value before. Whatever it owns goes outside the lock.
  T exchange(T value) {
    MutexLock lock(mutex_);
    std::swap(value_, value);
    return value;
  }
  /// Calls `change` with the value and answers what it returns. It runs under the lock: no log line, no other wait.
  template <class Change>
  auto update(Change&& change) {
    MutexLock lock(mutex_);
    return std::forward<Change>(change)(value_);
  }

 private:
  mutable Mutex mutex_;
  T value_ GUARDED_BY(mutex_){};
};

}  // namespace tarvo::platform
