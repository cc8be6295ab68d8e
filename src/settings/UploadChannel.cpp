#include "settings/UploadChannel.h"

#include <tarvo/platform/Clock.h>

namespace tarvo {

using platform::MutexLock;

UploadChannel::Attempt UploadChannel::tryTake(platform::Date now) {
  MutexLock lock(mutex_);
  if (!takenAt_) takenAt_ = now;
  const platform::Seconds elapsed = now - *takenAt_;
  const bool take = !locked_ || elapsed >= kExpiry;
  const Attempt attempt{locked_, elapsed, take};
  if (take) {
    locked_ = true;
    takenAt_ = now;
  }
  return attempt;
}

bool UploadChannel::locked() const {
  MutexLock lock(mutex_);
  return locked_;
}

void UploadChannel::setLocked(bool locked) {
  MutexLock lock(mutex_);
  locked_ = locked;
}

platform::Date UploadChannel::takenAt() const {
  const platform::Date now = platform::Clock::current()->now();
  MutexLock lock(mutex_);
  if (!takenAt_) takenAt_ = now;
  return *takenAt_;
}

void UploadChannel::setTakenAt(platform::Date date) {
  MutexLock lock(mutex_);
  takenAt_ = date;
}

}  // namespace tarvo
