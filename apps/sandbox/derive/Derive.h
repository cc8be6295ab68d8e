#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sandbox/derive/Records.h"

/// What the sandbox makes of a user's positions: past trips, places and the prediction of the next trip.
/// docs/sandbox.md tells how.
///
/// Each function works on the records of one user, inside one transaction of the store, and keeps nothing in memory.
/// Threads: any, one at a time for one user. Errors: what the store throws.
namespace tarvo::sandbox::derive {

/// What a batch has changed of what units and people can see.
struct Changes {
  bool trips = false, places = false, prediction = false;
};

/// How many there are now.
struct Totals {
  std::int64_t trips = 0, places = 0;
};

/// Takes in positions that this user did not have before, in any order; they are in `records` already.
Changes takeIn(Records& records, const std::vector<Point>& fresh);

/// Past trips are gone, and those that began before the newest position do not come back.
void forgetHistory(Records& records);
/// Places and the prediction are gone, and what was before the newest position is no longer counted towards them.
void forgetGeoProfile(Records& records);

Totals totals(Records& records);

/// JSON texts of answers to a unit: to a batch, to `GET pasttrips` (numbers above `first`, up to `last`), `pois` and
/// `predictions` ("success" false when there is none).
std::string counters(Records& records);
std::string pastTrips(Records& records, std::int64_t first, std::int64_t last);
std::string places(Records& records);
std::string prediction(Records& records);

}  // namespace tarvo::sandbox::derive
