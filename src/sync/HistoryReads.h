#pragma once

#include <optional>
#include <vector>

#include <tarvo/LocationsHistory.h>
#include <tarvo/Records.h>

#include "store/ObjectStore.h"

namespace tarvo {

/// Takes positions, past trips and places out of the store.
///
/// Threads: any; each operation reads in a block of the context, which the caller waits for. The positions of a history
/// stay in the store until they are asked for; all else that is handed out is a copy.
/// Errors: never throws; a failed fetch gives an empty history or list.
class HistoryReads {
 public:
  explicit HistoryReads(ObjectStore& store) : store_(store) {}

  /// An absent bound is no bound. Always an object, also without positions.
  LocationsHistory getLocationhistory(std::optional<platform::Date> since, std::optional<platform::Date> until);
  LocationsHistory getLocationhistoryExtraPolated(std::optional<platform::Date> since,
                                                  std::optional<platform::Date> until);
  std::vector<PointOfInterestRecord> getPointOfInterest();
  std::optional<PastTripRecord> getLastPastTrip();

 private:
  ObjectStore& store_;
};

}  // namespace tarvo
