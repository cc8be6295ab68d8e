#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/LocationRecords.h>
#include <tarvo/Records.h>
#include <tarvo/platform/CLLocation.h>

#include "store/Entity.h"

namespace tarvo {

/// A stored position: one fix, the circumstances in which it was taken, and how far its upload has come.
///
/// State by the flags (unsent, sentWithoutACK): (true, false) new, (true, true) posted, (false, false) acknowledged.
/// Threads and errors: see Entity.
class Locations : public Entity<Locations> {
 public:
  static constexpr std::string_view kEntity = "Locations";
  using Entity::Entity;

  /// Inserts a position with the next running index: the number of positions besides itself, those that `Retention` has
  /// removed included.
  static std::shared_ptr<Locations> addLocation(const platform::CLLocation& fix, std::string_view withActivity,
                                                std::string_view withLocalisationMethod, Context& context,
                                                std::string_view serviceAction);
  /// The newest by fix time.
  static std::shared_ptr<Locations> getLastLocation(Context& context);
  /// Positions in a batch at most.
  static constexpr std::size_t kBatchLimit = 1000;
  /// The oldest 1000 that were never posted. As in the next list, those that no save has written yet are left out: a
  /// process that ends without them gives their numbers to other positions.
  static List getUnsentLocations(Context& context);
  /// The oldest 1000 that await their acknowledgement.
  static List getSentWithoutACKLocations(Context& context);
  /// Those stored (not: fixed) between the two moments, both included, by ascending index.
  static LocationRecords getLocationHistory(Context& context, platform::Date since, platform::Date until);
  /// The positions of the store's file and how many of them wait; 0 for what cannot be counted.
  struct Counts {
    std::int64_t stored = 0, unsent = 0, awaiting = 0;
    std::int64_t unsaved = 0;               ///< in memory alone
    std::optional<std::int64_t> lastIndex;  ///< of all, also of the unsaved
    std::int64_t acknowledged() const { return std::max<std::int64_t>(stored - unsent - awaiting, 0); }
  };
  static Counts counts(Context& context);
  // When a position of the file was stored; absent when there is none, or no store.
  static std::optional<platform::Date> latestStorage(Context& context, platform::Date until);
  static std::optional<platform::Date> firstStorageAfter(Context& context, platform::Date moment);
  /// Of the lowest number among the new ones, or among those that await their acknowledgement if that is earlier.
  static std::optional<platform::Date> oldestUnacknowledgedStorage(Context& context);

  static void markLocationAsSentWithoutACKWithID(const platform::NSManagedObjectID& id, Context& context);
  /// Acknowledges `firstLoc` to `locationIndex`, both decimal texts; frees the upload channel and starts the next pass
  /// from inside, before the caller saves, if any position matched.
  static void markLocationAsSentUntilIndex(std::string_view locationIndex, Context& context, std::string_view firstLoc);

  /// The upload body: a JSON array of flat objects, all values texts. An empty list is fatal.
  static std::string convertToString(const List& positions, std::string_view uuid);

  // Counted by the design; no part of the SDK calls these six.
  /// The newest 1000, newest first.
  static List getAllLocations(Context& context);
  static std::shared_ptr<Locations> getLocationByID(const platform::NSManagedObjectID& id, Context& context);
  static void markLocationAsSentWithID(const platform::NSManagedObjectID& id, Context& context);
  /// One position must have the index (else fatal); several are logged and left alone.
  static void markLocationAsSentWithIndex(std::int64_t index, Context& context);
  static void removeData(Context& context);
  /// One position as serialised JSON.
  static std::optional<std::string> convertLocationsToJSON(const Locations& position, std::string_view uuid);

  LocationRecord record() const;
  std::optional<std::int64_t> index() const;
  /// One line for the log.
  std::string description() const;
};

}  // namespace tarvo
