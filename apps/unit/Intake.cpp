#include "unit/Intake.h"

#include <utility>

#include <tarvo/platform/LocationService.h>

namespace tarvo::unit {

using platform::LocationService;
using receivers::Condition;

namespace {

/// A day after the time of satellites begins, 1980-01-06: a receiver that shows an earlier one does not know it.
constexpr platform::Date kEarliestFix = platform::dateSince1970(315'964'800 + 86'400);

}  // namespace

Intake::Intake(const Loop& loop, std::shared_ptr<DeviceClock> clock, Told told)
    : post_(loop.poster()),
      clock_(std::move(clock)),
      told_(std::make_shared<const Told>(std::move(told))),
      order_(kEarliestFix) {}

receivers::FixOrder::Statistics Intake::statistics() const {
  const std::lock_guard lock(mutex_);
  return order_.statistics();
}

void Intake::received(const std::vector<platform::CLLocation>& fixes) {
  std::vector<platform::CLLocation> passed;
  {
    const std::lock_guard lock(mutex_);
    passed = order_.take(fixes);
  }
  if (passed.empty()) return;
  if (clock_) clock_->learn(passed.back().timestamp);
  if (isOpen_) return LocationService::shared().deliver(passed);
  if (toldTime_ || !clock_ || !clock_->isPlausible()) return;
  toldTime_ = true;
  post_([told = told_] { told->timeIsKnown(); });
}

void Intake::changed(Condition condition, const std::string& line) {
  const bool isOut = condition == Condition::lost || condition == Condition::refused;
  // One outage, one failure, however often it is tried again.
  if (isOut && !isOut_ && isOpen_) LocationService::shared().fail(0);
  if (isOut || condition == Condition::receiving) isOut_ = isOut;
  post_([told = told_, condition, line] { told->changed(condition, line); });
}

}  // namespace tarvo::unit
