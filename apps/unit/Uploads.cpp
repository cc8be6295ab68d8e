#include "unit/Uploads.h"

#include <algorithm>

#include <tarvo/platform/Clock.h>

namespace tarvo::unit {

using platform::Date;
using platform::Seconds;

namespace {

/// The shortest sleep, whatever a wait has left.
constexpr Seconds kLeast{1};

}  // namespace

NextPass nextPass(const Health& health, Date now, Seconds interval) {
  if (health.positions.unsent + health.positions.awaiting == 0) return {};
  Date due = health.delivery.nextTry.value_or(now);
  // A clock that was set back leaves a try in the future.
  if (const auto last = health.delivery.lastTry; last && *last <= now) due = std::max(due, *last + interval);
  if (due > now) return {false, std::max(due - now, kLeast)};
  return {true, std::max(interval, kLeast)};
}

Uploads::Uploads(const Tarvo& tarvo, Loop& loop, Seconds interval)
    : tarvo_(tarvo), interval_(interval), timer_(loop.timer([this] { look(); })) {}

void Uploads::wake() {
  if (Tarvo::ACTIVATE_STATUS() < Tarvo::BACKEND_BACKGROUND) return;
  if (!timer_->isArmed()) timer_->arm(std::max(interval_, kLeast));
}

void Uploads::setInterval(Seconds interval) {
  if (interval == interval_) return;
  interval_ = interval;
  if (timer_->isArmed()) timer_->arm(std::max(interval_, kLeast));
}

void Uploads::look() {
  const NextPass next = nextPass(tarvo_.health(), platform::Clock::current()->now(), interval_);
  if (next.now) tarvo_.locationManager().sendDataInBatchToRemoteWebServer();
  if (next.lookAgain) timer_->arm(*next.lookAgain);
}

}  // namespace tarvo::unit
