#pragma once

#include <optional>
#include <vector>

#include <tarvo/LocationsHistory.h>
#include <tarvo/Records.h>

#include "store/ObjectStore.h"

namespace tarvo {

/// Takes histories, past trips and places out of the store, and what the backend sent into it.
///
/// Threads: any; store work runs in blocks of the context, which the caller waits for. What is handed out are copies.
/// Errors: never throws; a failed fetch gives an empty history.
class History {
 public:
  explicit History(ObjectStore& store) : store_(store) {}

  /// An absent bound is no bound. Always an object, also without positions.
  LocationsHistory getLocationhistory(std::optional<platform::Date> since, std::optional<platform::Date> until);
  LocationsHistory getLocationhistoryExtraPolated(std::optional<platform::Date> since,
                                                  std::optional<platform::Date> until);
  std::vector<PointOfInterestRecord> getPointOfInterest();
  std::optional<PastTripRecord> getLastPastTrip();

  /// Stores each trip with a save of its own, then makes the newest stored one's identifier the last trip id. A
  /// "pasttrip_id" that is no integer, and a newest trip without one, stop the process before anything is stored.
  /// Returns what the host is to be told: the newest trip alone, absent when none is stored.
  std::optional<LocationsHistory> addNewLastTrip(const std::vector<platform::Dictionary>& trips);
  /// Stores each place with a save of its own; nothing is touched for an empty list.
  void addNewPOI(const std::vector<platform::Dictionary>& pois);

  /// Past trips and places; neither saves.
  void removeData();
  void removePOIs();

 private:
  ObjectStore& store_;
};

}  // namespace tarvo
