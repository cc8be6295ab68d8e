#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Random.h"
#include "Roads.h"

namespace tarvo::simulation {

struct Place {
  std::string name;  ///< "home", "work", "shop", ...
  Coordinate at;
};

/// A way to a place: begun at `leave` (ms since 1970), or later where the stay before would last less than `stay`.
struct Leg {
  std::size_t to = 0;
  Mode mode = Mode::Drive;
  std::int64_t leave = 0, stay = 0;
};

/// What somebody is going to do, from the first place on.
struct Plan {
  std::vector<Place> places;
  std::vector<Leg> legs;
  std::int64_t start = 0;
  std::int64_t end = 0;  ///< a stay at the last place lasts until then, and at least `stay`
  std::int64_t stay = 0;
};

/// One way, and some minutes at its end.
Plan oneWay(Coordinate from, Coordinate to, Mode mode, std::int64_t start);

/// A good hour: a drive that is interrupted for a walk to a place, a stay there and the walk back to the car, and a
/// stay where it ends.
Plan outing(Coordinate from, Coordinate to, std::uint64_t seed, std::int64_t start);

/// Days of a person who lives at one place and works at the other: the way there and back on weekdays, lunch, errands,
/// an evening of sports twice a week, friends, and a trip out of town on one day of the weekend. Begins at midnight
/// before `start`, by the sun: the zone is the longitude's.
Plan life(Coordinate home, Coordinate work, std::uint64_t seed, std::int64_t start, int days);

}  // namespace tarvo::simulation
