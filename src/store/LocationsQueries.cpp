#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "platform/foundation/Text.h"
#include "settings/Names.h"
#include "store/Locations.h"
#include "store/RecordReading.h"

namespace tarvo {

using platform::Date;
using platform::errorAndUserInfo;
using platform::NSFetchRequest;
using platform::UserDefaults;
using Operator = platform::NSPredicate::Operator;

namespace {

/// What one upload batch may hold at most.
constexpr std::size_t kBatchLimit = 1000;

/// "nil" stands for the index of an empty list's first and last record.
std::optional<std::int64_t> firstIndex(const Locations::List& rows) {
  return rows.empty() ? std::nullopt : rows.front()->index();
}
std::optional<std::int64_t> lastIndex(const Locations::List& rows) {
  return rows.empty() ? std::nullopt : rows.back()->index();
}

/// While something could not be saved the file does not tell all.
platform::Result<LocationRecords> historyRecords(platform::NSManagedObjectContext& context,
                                                 const NSFetchRequest& request) {
  if (!context.hasChanges(request.entity)) {
    auto rows = context.rows(request);
    if (!rows) return rows.error();
    return storedPositions(std::move(*rows));
  }
  auto found = fetchAs<Locations>(context, request);
  if (!found) return found.error();
  std::vector<LocationRecord> records;
  for (const auto& location : *found) records.push_back(location->record());
  return LocationRecords(std::move(records));
}

}  // namespace

std::shared_ptr<Locations> Locations::getLastLocation(Context& context) {
  auto rows = fetchAs<Locations>(
      context, {.entity = std::string(kEntity), .sortDescriptors = {{"locationTimestamp", false}}, .fetchLimit = 1});
  if (!rows) {
    Log::error("Unresolved error ", errorAndUserInfo(rows.error()));
    return nullptr;
  }
  if (rows->empty()) {
    Log::debug("Locations:getLastLocation [loc] [] mainThread:", mainThread());
    return nullptr;
  }
  Log::debug("Locations:getLastLocation [loc] loc:", rows->front()->description());
  return rows->front();
}

Locations::List Locations::getAllLocations(Context& context) {
  auto rows = fetchAs<Locations>(
      context, {.entity = std::string(kEntity), .sortDescriptors = {{"index", false}}, .fetchLimit = kBatchLimit});
  if (!rows) {
    Log::error("Unresolved error ", errorAndUserInfo(rows.error()));
    return {};
  }
  Log::debug("getAllLocations lastindex = ", firstIndex(*rows), " first = ", lastIndex(*rows));
  return std::move(*rows);
}

Locations::List Locations::getUnsentLocations(Context& context, Unsaved unsaved) {
  // Read and dropped: the marker does not narrow the query.
  (void)UserDefaults::standard().integer(names::kUnsentLocation);
  auto rows = fetchAs<Locations>(
      context, {.entity = std::string(kEntity),
                .predicates = {{"unsent", Operator::equal, true}, {"sentWithoutACK", Operator::equal, false}},
                .sortDescriptors = {{"index", true}},
                .fetchLimit = kBatchLimit,
                .includesPendingInsertions = unsaved == Unsaved::included});
  if (!rows) {
    Log::error("Unresolved error ", errorAndUserInfo(rows.error()));
    return {};
  }
  if (rows->empty())
    Log::debug("Locations:getUnsentLocations [loc] [0] mainThread:", mainThread());
  else
    Log::debug("Locations:getUnsentLocations [loc] from:", firstIndex(*rows), " to:", lastIndex(*rows),
               " mainThread:", mainThread());
  return std::move(*rows);
}

Locations::List Locations::getSentWithoutACKLocations(Context& context, Unsaved unsaved) {
  Log::debug("Locations:getSentWithoutACKLocations [loc] lastindexACK:",
             UserDefaults::standard().integer(names::kSentWithoutACK));
  // Whatever `unsent` says: a row that only lost its first flag is sent again too.
  auto rows = fetchAs<Locations>(context, {.entity = std::string(kEntity),
                                           .predicates = {{"sentWithoutACK", Operator::equal, true}},
                                           .sortDescriptors = {{"index", true}},
                                           .fetchLimit = kBatchLimit,
                                           .includesPendingInsertions = unsaved == Unsaved::included});
  if (!rows) {
    Log::error("Locations:getSentWithoutACKLocations Unresolved error ", errorAndUserInfo(rows.error()));
    return {};
  }
  Log::debug("Locations:getSentWithoutACKLocations [loc] from:", firstIndex(*rows), " to:", lastIndex(*rows),
             " count : ", rows->size(), " mainThread:", mainThread());
  return std::move(*rows);
}

LocationRecords Locations::getLocationHistory(Context& context, Date since, Date until) {
  auto records = historyRecords(context, {.entity = std::string(kEntity),
                                          .predicates = {{"eventTimestamp", Operator::atLeast, since},
                                                         {"eventTimestamp", Operator::atMost, until}},
                                          .sortDescriptors = {{"index", true}}});
  if (!records) {
    Log::error("Locations:getLocationHistory Unresolved error ", errorAndUserInfo(records.error()));
    return {};
  }
  Log::debug("Locations:getLocationHistory [loc] from:", since, " to:", until, " count : ", records->size(),
             " mainThread:", mainThread());
  return std::move(*records);
}

std::shared_ptr<Locations> Locations::getLocationByID(const platform::NSManagedObjectID& id, Context& context) {
  auto object = context.existingObject(id);
  if (!object) {
    Log::error("Locations:error:getLocationByID:", object.error());
    return nullptr;
  }
  return std::dynamic_pointer_cast<Locations>(*object);
}

}  // namespace tarvo
