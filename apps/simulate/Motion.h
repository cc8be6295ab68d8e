#pragma once

#include <cstdint>
#include <vector>

#include "Roads.h"

namespace tarvo::simulation {

/// Where someone on a road is: milliseconds since the start, metres along the road, m/s.
struct Moment {
  std::int64_t ms = 0;
  double along = 0, speed = 0;
};

struct Travel {
  std::vector<Moment> moments;  ///< at the rate that was asked for, from the start until the arrival, that left out
  std::int64_t ms = 0;          ///< of the arrival; a whole second
};

/// Goes along a road from standing to standing: never faster than the road, its curves and the traveller allow, with
/// comfortable acceleration and braking, waiting at some of the lights. `rate` is in moments a second.
Travel travel(const Road& road, Mode mode, double rate, Random random);

}  // namespace tarvo::simulation
