#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/LocationRecords.h>
#include <tarvo/Records.h>
#include <tarvo/platform/CLLocation.h>

#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

/// A stored position: one fix, the circumstances in which it was taken, and how far its upload has come.
///
/// State by the flags (unsent, sentWithoutACK): (true, false) new, (true, true) posted, (false, false) acknowledged.
/// Threads: everything only inside a block of the given context. No operation saves; none throws: what fails is
/// logged and gives nothing or an empty list.
class Locations : public platform::NSManagedObject {
 public:
  static constexpr std::string_view kEntity = "Locations";
  using List = std::vector<std::shared_ptr<Locations>>;
  using Context = platform::NSManagedObjectContext;

  using NSManagedObject::NSManagedObject;

  /// Inserts a record with the next running index: the number of records besides itself.
  static std::shared_ptr<Locations> addLocation(const platform::CLLocation& location, std::string_view withActivity,
                                                std::string_view withLocalisationMethod, Context& context,
                                                std::string_view serviceAction);
  /// The newest by fix time.
  static std::shared_ptr<Locations> getLastLocation(Context& context);
  /// The newest 1000, newest first.
  static List getAllLocations(Context& context);
  /// Those in memory alone, which no save has written yet, included or not. They are no part of an upload: a process
  /// that ends without them gives their numbers to other positions.
  enum class Unsaved { included, leftOut };
  /// The oldest 1000 that were never posted.
  static List getUnsentLocations(Context& context, Unsaved unsaved = Unsaved::included);
  /// The oldest 1000 that await their acknowledgement.
  static List getSentWithoutACKLocations(Context& context, Unsaved unsaved = Unsaved::included);
  /// Those stored (not: fixed) between the two moments, both included, by ascending index.
  static LocationRecords getLocationHistory(Context& context, platform::Date since, platform::Date until);
  static std::shared_ptr<Locations> getLocationByID(const platform::NSManagedObjectID& id, Context& context);

  static void markLocationAsSentWithID(const platform::NSManagedObjectID& id, Context& context);
  static void markLocationAsSentWithoutACKWithID(const platform::NSManagedObjectID& id, Context& context);
  /// One record must have the index (else fatal); several are logged and left alone.
  static void markLocationAsSentWithIndex(std::int64_t index, Context& context);
  /// Acknowledges `firstLoc` to `locationIndex`, both decimal texts; frees the upload channel and starts the next
  /// batch from inside, before the caller saves, if any record matched.
  static void markLocationAsSentUntilIndex(std::string_view locationIndex, Context& context, std::string_view firstLoc);
  static void removeData(Context& context);

  /// The upload body: a JSON array of flat objects, all values texts. An empty list is fatal.
  static std::string convertToString(const List& locations, std::string_view uuid);
  /// One position as serialised JSON.
  static std::optional<std::string> convertLocationsToJSON(const Locations& location, std::string_view uuid);

  /// What `markLocationAsSentUntilIndex` calls to start the next batch; installed once by the engine.
  static void setNextBatchHook(std::function<void()> startNextBatch);

  LocationRecord record() const;
  std::optional<std::int64_t> index() const;
  std::optional<double> latitude() const;
  std::optional<double> longitude() const;
  /// One line for the log.
  std::string description() const;
};

}  // namespace tarvo
