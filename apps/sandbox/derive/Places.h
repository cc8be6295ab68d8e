#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/derive/Book.h"
#include "sandbox/derive/Records.h"

namespace tarvo::sandbox::derive {

/// Where a user has stayed long or often.
struct KnownPlace {
  std::int64_t id = 0;
  Place2D centre;
  double radius = 0;  ///< metres
  std::string name;
  std::int64_t visits = 0;
  double seconds = 0;
  double first = 0, last = 0;  ///< times at which the host is known to have been there
};

/// By number.
std::vector<KnownPlace> knownPlaces(Records& records);

/// The place of a stay, or null.
const KnownPlace* placeOf(const Stop& stay, const std::vector<KnownPlace>& places);

/// Brings the places in step with the stays; true when a unit can see a difference, which has a version of its own in
/// the book then.
bool updatePlaces(Records& records, Book& book);

/// Local mean solar time: seconds since 1970 as a sundial at this longitude would count them. No zone is sent, and it
/// is within an hour of most of them.
inline double solarTime(double time, double lon) { return time + lon * 240; }
/// 0 is a Sunday.
int weekday(std::int64_t dayOfSolarTime);

}  // namespace tarvo::sandbox::derive
