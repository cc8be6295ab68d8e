#include "sandbox/Faults.h"

namespace tarvo::sandbox {

void Faults::answerNext(std::size_t posts, int status) {
  const std::lock_guard lock(mutex_);
  planned_.insert(planned_.end(), posts, status);
}

void Faults::hangNext(std::size_t posts) { answerNext(posts, kHang); }

void Faults::release() {
  const std::lock_guard lock(mutex_);
  std::erase(planned_, kHang);
  ++releases_;
  changed_.notify_all();
}

bool Faults::waitUntilHanging(std::size_t posts, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, longest, [&] { return hanging_ >= posts; });
}

int Faults::meet() {
  std::unique_lock lock(mutex_);
  if (planned_.empty()) return 0;
  const int fault = planned_.front();
  planned_.pop_front();
  if (fault != kHang) return fault;
  ++hanging_;
  changed_.notify_all();
  const std::size_t arrival = releases_;
  changed_.wait(lock, [&] { return closed_ || releases_ != arrival; });
  --hanging_;
  return closed_ ? 503 : 0;
}

void Faults::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace tarvo::sandbox
