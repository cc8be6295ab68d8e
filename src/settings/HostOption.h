#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tarvo/DeliveryOptions.h>
#include <tarvo/StorageLimits.h>
#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Mutex.h"

namespace tarvo {

/// What describes the host says of these. What has another type, or lies below zero, is told in `complaints` and counts
/// as not said. Threads: any.
DeliveryOptions describedDeliveryOptions(std::vector<std::string>& complaints);
StorageLimits describedStorageLimits(std::vector<std::string>& complaints);

/// A group of options as the host has set it, or else as its property list says, which is read when the options are
/// first asked for and not set by then; what is wrong there goes to the system log once.
///
/// Threads: any; each operation is one step. No lock is held while the list is read and complaints are told.
template <class T>
class HostOption {
 public:
  using Read = T (*)(std::vector<std::string>& complaints);
  explicit HostOption(Read read) : read_(read) {}

  T get() const {
    {
      platform::MutexLock lock(mutex_);
      if (value_) return *value_;
    }
    std::vector<std::string> complaints;
    T described = read_(complaints);
    {
      platform::MutexLock lock(mutex_);
      if (value_) return *value_;  // somebody was faster
      value_ = described;
    }
    for (const std::string& complaint : complaints) platform::NSLog(complaint);
    return described;
  }
  void set(T value) {
    platform::MutexLock lock(mutex_);
    value_ = value;
  }

 private:
  const Read read_;
  mutable platform::Mutex mutex_;
  mutable std::optional<T> value_ GUARDED_BY(mutex_);
};

}  // namespace tarvo
