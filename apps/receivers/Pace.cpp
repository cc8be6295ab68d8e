#include "Pace.h"

#include <algorithm>

namespace tarvo::receivers {

namespace {
using platform::Seconds;
constexpr Seconds kMoving{1}, kStill{5}, kStillFrom{30};
/// Receivers tell speeds of some decimetres a second while they stand.
constexpr double kMovingMetresPerSecond = 1;
}  // namespace

Pace::Pace(std::size_t room) : room_(room) {}

Seconds Pace::pauseAfter(const std::vector<platform::CLLocation>& fixes, std::size_t bytes, Seconds now) {
  if (!lastRead_) lastMoved_ = now;
  for (const auto& fix : fixes) {
    if (!moves(fix)) continue;
    rest_ = fix;
    lastMoved_ = now;
  }
  Seconds pause = now - lastMoved_ >= kStillFrom ? kStill : kMoving;
  if (lastRead_ && bytes > 0)
    pause = std::min(pause, (now - *lastRead_) * (static_cast<double>(room_) / 2 / static_cast<double>(bytes)));
  lastRead_ = now;
  return pause;
}

bool Pace::moves(const platform::CLLocation& fix) {
  return !rest_ || fix.speed >= kMovingMetresPerSecond ||
         fix.distanceFrom(*rest_) > fix.horizontalAccuracy + rest_->horizontalAccuracy;
}

}  // namespace tarvo::receivers
