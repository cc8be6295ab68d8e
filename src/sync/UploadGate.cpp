#include "sync/UploadGate.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include <tarvo/platform/Clock.h>

#include "platform/foundation/Text.h"

namespace tarvo {

using platform::MutexLock;
using platform::Seconds;

namespace {

Seconds monotonic() { return platform::Clock::current()->monotonic(); }

std::int64_t today() {
  return static_cast<std::int64_t>(
      std::floor(platform::secondsSince1970(platform::Clock::current()->now()) / (24 * 60 * 60)));
}

}  // namespace

UploadGate::UploadGate(Draw draw, Reachable reachable) : draw_(std::move(draw)), reachable_(std::move(reachable)) {}

bool UploadGate::admits(Pass pass, const DeliveryOptions& options) {
  std::optional<Wait> wait;
  {
    MutexLock lock(mutex_);
    wait = wait_;
  }
  // Asked for with no lock held: it may take a moment.
  const bool waits = options.confirmed && wait && pass != Pass::host && !isOver(*wait);
  const Seconds now = monotonic();
  if (waits) return false;
  MutexLock lock(mutex_);
  const bool endsEarly = wait && (pass == Pass::host || now < wait->until);
  if (endsEarly && wait_ && wait_->until == wait->until) {  // no failure has come in between
    failures_ = 0;
    wait_.reset();
  }
  if (usesUp(options)) return false;
  if (pass != Pass::event || !lastPost_) return true;
  const Seconds since = now - *lastPost_;  // below zero only after another clock was installed
  return since < Seconds::zero() || !(since < options.leastPassInterval);
}

bool UploadGate::isUsedUp(const DeliveryOptions& options) const {
  MutexLock lock(mutex_);
  return usesUp(options);
}

bool UploadGate::usesUp(const DeliveryOptions& options) const {
  return options.networkIsMetered && options.meteredBytesPerDay &&
         startedOver(day_).bytes >= *options.meteredBytesPerDay;
}

bool UploadGate::isOver(const Wait& wait) const {
  return monotonic() >= wait.until || (!wait.wasReachable && reachable_());
}

void UploadGate::posted() {
  const Seconds now = monotonic();
  MutexLock lock(mutex_);
  lastPost_ = now;
}

void UploadGate::succeeded() {
  MutexLock lock(mutex_);
  failures_ = 0;
  wait_.reset();
}

void UploadGate::forget() {
  MutexLock lock(mutex_);
  failures_ = 0;
  wait_.reset();
  lastPost_.reset();
}

void UploadGate::failed(DeliveryError error, std::optional<Seconds> retryAfter) {
  const bool reachable = reachable_();
  const double draw = draw_();
  const Seconds now = monotonic();
  MutexLock lock(mutex_);
  const Seconds bound = std::min(kFirstBound * std::exp2(failures_), kLongestWait);
  failures_ = std::min(failures_ + 1, 30);
  Seconds wait = error == DeliveryError::unauthorized ? kLongestWait : bound * draw;
  if (retryAfter) wait = std::max(wait, std::min(*retryAfter, kLongestRetryAfter));
  wait_ = Wait{now + wait, reachable};
}

std::optional<platform::Date> UploadGate::nextTry(const DeliveryOptions& options) const {
  std::optional<Wait> wait;
  {
    MutexLock lock(mutex_);
    wait = wait_;
  }
  if (!options.confirmed || !wait || isOver(*wait)) return std::nullopt;
  return platform::Clock::current()->now() + (wait->until - monotonic());
}

UploadGate::Day UploadGate::startedOver(const Day& day) {
  // The day before still counts as this one: a clock that is set back over midnight forgets nothing.
  const std::int64_t number = today();
  return number > day.number || number < day.number - 1 ? Day{number, 0} : day;
}

bool UploadGate::isRestored() const {
  MutexLock lock(mutex_);
  return restored_;
}

void UploadGate::restore(std::string_view kept) {
  Day day;
  const char* const end = kept.data() + kept.size();
  const auto [blank, error] = std::from_chars(kept.data(), end, day.number);
  const bool reads = error == std::errc() && blank != end && *blank == ' ' &&
                     std::from_chars(blank + 1, end, day.bytes).ec == std::errc();
  MutexLock lock(mutex_);
  if (std::exchange(restored_, true) || !reads) return;
  const Day counted = startedOver(day_);
  day_ = startedOver(day);
  day_.bytes += counted.bytes;
}

std::string UploadGate::kept() const {
  MutexLock lock(mutex_);
  const Day day = startedOver(day_);
  return platform::concat(day.number, " ", day.bytes);
}

void UploadGate::addBytes(std::uint64_t bytes) {
  MutexLock lock(mutex_);
  day_ = startedOver(day_);
  day_.bytes += bytes;
}

std::uint64_t UploadGate::bytesToday() const {
  MutexLock lock(mutex_);
  return startedOver(day_).bytes;
}

}  // namespace tarvo
