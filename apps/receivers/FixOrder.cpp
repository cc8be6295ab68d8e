#include "FixOrder.h"

#include <algorithm>

namespace tarvo::receivers {

namespace {
constexpr int kBelievedFrom = 10;
}

FixOrder::FixOrder(platform::Date earliest) : earliest_(earliest) {}

std::vector<platform::CLLocation> FixOrder::take(std::vector<platform::CLLocation> fixes) {
  statistics_.taken += fixes.size();
  std::erase_if(fixes, [this](const platform::CLLocation& fix) { return !passes(fix.timestamp); });
  statistics_.passed += fixes.size();
  return fixes;
}

bool FixOrder::passes(platform::Date time) {
  if (time < earliest_) {
    ++statistics_.implausible;
    return false;
  }
  if (time == last_ || (behind_ > 0 && time == lastBehind_)) {
    ++statistics_.doubles;
    return false;
  }
  if (time < last_) {
    behind_ = behind_ > 0 && time > lastBehind_ ? behind_ + 1 : 1;
    lastBehind_ = time;
    if (behind_ < kBelievedFrom) {
      ++statistics_.stepsBack;
      return false;
    }
    ++statistics_.setBack;
  }
  behind_ = 0;
  last_ = time;
  return true;
}

}  // namespace tarvo::receivers
