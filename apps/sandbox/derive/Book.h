#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/derive/Records.h"
#include "sandbox/derive/Sweep.h"

namespace tarvo::sandbox::derive {

/// A stop as it is kept: the anchor and the departure are the span of its row.
struct KeptStop : Stop {
  std::int64_t id = 0;
  std::int64_t trip = 0;  ///< the trip that ended here; 0: none
};

/// What the derivation remembers of a user between two batches, one row of Kind::State.
struct Book {
  Sweep sweep;
  double first = 0, newest = 0;  ///< times of positions
  std::int64_t newestID = -1;    ///< of the newest; -1 before the first
  std::int64_t stop = 0;         ///< the last one's number
  std::int64_t stops = 0, trips = 0, places = 0, placeVersions = 0, predictions = 0;  ///< last numbers given
  std::int64_t lastTrip = 0, placeVersion = 0, prediction = 0;                        ///< as told to the unit
  std::int64_t tripCount = 0, placeCount = 0;
  double historySince, profileSince;  ///< what was earlier is forgotten

  Book();
};

Book readBook(Records& records);
void write(Records& records, const Book& book);

KeptStop stopOf(const Row& row);
Row rowOf(const KeptStop& stop);
std::optional<KeptStop> stopNumbered(Records& records, std::int64_t id);

/// Seconds since 1970 as units read them: 2024-05-14T16:30:00.000+0000.
std::string dateText(double time);

}  // namespace tarvo::sandbox::derive
