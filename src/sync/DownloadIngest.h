#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tarvo/LocationsHistory.h>

#include "store/ObjectStore.h"

namespace tarvo {

/// Puts the past trips and places that the backend sends into the store, and takes them all out again.
///
/// Threads: any; store work runs in blocks of the context, which the caller waits for. Errors: never throws; what fails
/// is logged.
class DownloadIngest {
 public:
  explicit DownloadIngest(ObjectStore& store) : store_(store) {}

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

/// Reads an answer of the log endpoint and deletes the log file that it says the backend holds.
///
/// Threads: any; runs to its end on the caller's thread. Errors: never throws; what cannot be read is logged.
void handleLogUploadReply(const std::string& data);

}  // namespace tarvo
