#include "sandbox/Faults.h"

#include <utility>

namespace tarvo::sandbox {

void Faults::answerNext(const std::string& path, std::size_t requests, int status, std::string body) {
  const std::lock_guard lock(mutex_);
  auto& planned = planned_[path];
  planned.insert(planned.end(), requests, Planned{status, std::move(body)});
}

void Faults::hangNext(const std::string& path, std::size_t requests) { answerNext(path, requests, kHang); }

void Faults::release() {
  const std::lock_guard lock(mutex_);
  for (auto& [path, planned] : planned_)
    std::erase_if(planned, [](const Planned& fault) { return fault.status == kHang; });
  ++releases_;
  changed_.notify_all();
}

bool Faults::waitUntilHanging(std::size_t requests, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, longest, [&] { return hanging_ >= requests; });
}

std::optional<Faults::Planned> Faults::meet(const std::string& path) {
  std::unique_lock lock(mutex_);
  const auto found = planned_.find(path);
  if (found == planned_.end() || found->second.empty()) return std::nullopt;
  Planned fault = std::move(found->second.front());
  found->second.pop_front();
  if (fault.status != kHang) return fault;
  ++hanging_;
  changed_.notify_all();
  const std::size_t arrival = releases_;
  changed_.wait(lock, [&] { return closed_ || releases_ != arrival; });
  --hanging_;
  if (closed_) return Planned{503, {}};
  return std::nullopt;
}

void Faults::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace tarvo::sandbox
