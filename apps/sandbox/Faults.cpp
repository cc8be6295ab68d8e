#include "sandbox/Faults.h"

#include <algorithm>
#include <utility>

namespace tarvo::sandbox {
namespace {

constexpr double kDelay = 5;

std::chrono::steady_clock::duration duration(double seconds) {
  return std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

bool Faults::State::lives(Clock::time_point now) const {
  return (!rule.times || met < *rule.times) && (!end || now < *end);
}

std::int64_t Faults::add(Rule rule) {
  State state;
  if (rule.seconds) state.end = Clock::now() + duration(*rule.seconds);
  state.rule = std::move(rule);
  const std::lock_guard lock(mutex_);
  rules_.emplace(++last_, std::move(state));
  return last_;
}

bool Faults::remove(std::int64_t id) {
  const std::lock_guard lock(mutex_);
  changed_.notify_all();
  return rules_.erase(id) > 0;
}

void Faults::clear() {
  const std::lock_guard lock(mutex_);
  changed_.notify_all();
  rules_.clear();
}

std::vector<Faults::Standing> Faults::standing() {
  const std::lock_guard lock(mutex_);
  forget();
  std::vector<Standing> all;
  for (const auto& [id, state] : rules_) {
    all.push_back({id, state.rule, state.met, std::nullopt});
    if (state.end) all.back().left = std::max(0.0, std::chrono::duration<double>(*state.end - Clock::now()).count());
  }
  return all;
}

void Faults::answerNext(const std::string& path, std::size_t requests, int status, const std::string& body) {
  Rule rule;
  rule.endpoint = path;
  rule.times = static_cast<std::int64_t>(requests);
  rule.status = status;
  if (!body.empty()) rule.body = body;
  add(std::move(rule));
}

void Faults::hangNext(const std::string& path, std::size_t requests) {
  Rule rule;
  rule.endpoint = path;
  rule.kind = FaultKind::hang;
  rule.times = static_cast<std::int64_t>(requests);
  add(std::move(rule));
}

void Faults::release() {
  const std::lock_guard lock(mutex_);
  std::erase_if(rules_, [](const auto& one) { return one.second.rule.kind == FaultKind::hang; });
  changed_.notify_all();
}

bool Faults::waitUntilHanging(std::size_t requests, std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, longest, [&] { return hanging_ >= requests; });
}

void Faults::waitAtMost(std::size_t requests) {
  const std::lock_guard lock(mutex_);
  mostWaiting_ = requests;
}

std::optional<Rule> Faults::meet(const std::string& path) {
  std::unique_lock lock(mutex_);
  forget();
  const auto now = Clock::now();
  std::int64_t met = 0;
  for (auto& [id, state] : rules_) {
    if (!state.lives(now) || (state.rule.endpoint != "*" && state.rule.endpoint != path)) continue;
    if (++state.seen % state.rule.every.value_or(1) == 0 && met == 0) met = id;
  }
  if (met == 0) return std::nullopt;
  ++rules_[met].met;
  Rule rule = rules_[met].rule;
  if (rule.kind != FaultKind::hang && rule.kind != FaultKind::delay) return rule;
  if (!wait(lock, met)) rule.kind = FaultKind::dropBefore;
  return closed_ ? Rule() : rule;
}

bool Faults::wait(std::unique_lock<std::mutex>& lock, std::int64_t id) {
  if (waiting_ >= mostWaiting_) return false;
  State& state = rules_[id];
  const bool hangs = state.rule.kind == FaultKind::hang;
  const auto end = hangs ? state.end : std::optional(Clock::now() + duration(state.rule.delay.value_or(kDelay)));
  ++state.waiting;
  ++waiting_;
  hanging_ += hangs ? 1 : 0;
  changed_.notify_all();
  const auto over = [&] { return closed_ || !rules_.contains(id); };
  if (end)
    changed_.wait_until(lock, *end, over);
  else
    changed_.wait(lock, over);
  hanging_ -= hangs ? 1 : 0;
  --waiting_;
  if (const auto left = rules_.find(id); left != rules_.end()) --left->second.waiting;
  return true;
}

void Faults::forget() {
  const auto now = Clock::now();
  std::erase_if(rules_, [&](const auto& one) { return one.second.waiting == 0 && !one.second.lives(now); });
}

bool Faults::pause(double seconds) {
  std::unique_lock lock(mutex_);
  if (waiting_ >= mostWaiting_) return false;
  ++waiting_;
  changed_.wait_for(lock, duration(seconds), [&] { return closed_; });
  --waiting_;
  return !closed_;
}

void Faults::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace tarvo::sandbox
