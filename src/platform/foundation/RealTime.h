#pragma once

#include <algorithm>
#include <chrono>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// A span that can be added to the machine's clock without overflow: a year at most, never negative.
inline std::chrono::nanoseconds boundedRealTime(Seconds span) {
  constexpr double kYear = 365 * 86400.0;
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds(std::clamp(span.count(), 0.0, kYear)));
}

}  // namespace tarvo::platform
