#include "unit/DeviceClock.h"

#include <algorithm>

namespace tarvo::unit {

using platform::Date;
using platform::Seconds;

namespace {

constexpr Seconds kLateness{60};

}  // namespace

Date dayOfBuild() { return platform::dateSince1970(TARVO_BUILT); }

DeviceClock::DeviceClock(std::shared_ptr<const platform::Clock> machine, Date earliest)
    : machine_(std::move(machine)), earliest_(earliest) {}

void DeviceClock::learn(Date fixTime) {
  if (fixTime < earliest_) return;
  const Date start = fixTime - machine_->monotonic();
  const std::lock_guard lock(mutex_);
  if (receiverStart_ && start <= *receiverStart_ && *receiverStart_ - start < kLateness) return;
  receiverStart_ = start;
}

bool DeviceClock::isPlausible() const { return now() >= earliest_; }

Date DeviceClock::now() const {
  const Date machines = machine_->now();
  if (machines >= earliest_) return machines;
  const std::lock_guard lock(mutex_);
  return receiverStart_ ? *receiverStart_ + machine_->monotonic() : machines;
}

std::optional<Seconds> DeviceClock::realTimeUntil(Date date) const { return std::max(date - now(), Seconds(0)); }

}  // namespace tarvo::unit
