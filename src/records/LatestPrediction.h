#pragma once

#include <tarvo/Trip.h>

#include "platform/foundation/Guarded.h"

namespace tarvo {

/// The latest prediction of the process, empty at first: the backend client sets it, the host gets copies.
inline platform::Guarded<Trip>& latestPrediction() {
  static auto* prediction = new platform::Guarded<Trip>;
  return *prediction;
}

}  // namespace tarvo
