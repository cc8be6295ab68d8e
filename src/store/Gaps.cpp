#include "store/Gaps.h"

namespace tarvo {
namespace {

/// More than a clock that is being slewed gains or loses in a silence.
constexpr platform::Seconds kSet{60};

}  // namespace

platform::Date Gaps::Moment::wallOf(const Moment& earlier) const {
  const platform::Date expected = wall - (monotonic - earlier.monotonic);
  return expected - earlier.wall > kSet || earlier.wall - expected > kSet ? expected : earlier.wall;
}

void append(Gaps::List& gaps, Health::Gap gap) {
  if (gaps.size() == Gaps::kMost) gaps.erase(gaps.begin());
  gaps.push_back(gap);
}

void Gaps::obstacleIs(std::optional<GapCause> obstacle, const Moment& now) {
  if (obstacle == obstacle_) return;
  if (isLong(now)) end(now);
  obstacle_ = obstacle;
}

bool Gaps::didStore(std::optional<GapCause> obstacle, const Moment& now) {
  const bool isGap = isLong(now);
  if (isGap) end(now);
  since_ = now;
  obstacle_ = obstacle;
  return isGap;
}

std::optional<Health::Gap> Gaps::open(const Moment& now) const {
  if (!isLong(now)) return std::nullopt;
  return Health::Gap{now.wallOf(since_), std::nullopt, cause(now)};
}

bool Gaps::isLong(const Moment& now) const { return now.monotonic - since_.monotonic > kLongest; }

GapCause Gaps::cause(const Moment& now) const {
  if (obstacle_) return *obstacle_;
  // A drive has fixes too near the one before up to the moment in which the receiver falls silent.
  if (now.fixes.silence - since_.fixes.silence > (now.monotonic - since_.monotonic) / 2)
    return GapCause::receiverSilent;
  const auto refused = [](const Moment& at) {
    return at.fixes.notFinite + at.fixes.offTheGlobe + at.fixes.impossibleTime;
  };
  if (now.fixes.filteredByDistance > since_.fixes.filteredByDistance) return GapCause::standingStill;
  return refused(now) > refused(since_) ? GapCause::refusedFixes : GapCause::receiverSilent;
}

void Gaps::end(const Moment& now) {
  append(ended_, {now.wallOf(since_), now.wall, cause(now)});
  since_ = now;
}

}  // namespace tarvo
