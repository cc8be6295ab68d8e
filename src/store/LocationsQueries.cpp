#include <algorithm>
#include <cmath>
#include <limits>

#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "settings/Names.h"
#include "store/Attributes.h"
#include "store/Locations.h"
#include "store/RecordReading.h"

namespace tarvo {

using platform::Date;
using platform::NSFetchRequest;
using platform::NSPredicate;
using platform::UserDefaults;

namespace {

/// What one upload batch may hold at most.

std::vector<NSPredicate> neverPosted() {
  return {{"unsent", NSPredicate::Operator::equal, true}, {"sentWithoutACK", NSPredicate::Operator::equal, false}};
}
/// Whatever `unsent` says: a position that only lost its first flag is sent again too.
std::vector<NSPredicate> awaitingAcknowledgement() { return {{"sentWithoutACK", NSPredicate::Operator::equal, true}}; }

/// The oldest positions in that state, as many as a batch holds, of those that are in the file.
NSFetchRequest batch(std::vector<NSPredicate> state) {
  return {.predicates = std::move(state),
          .sortDescriptors = {{"index", true}},
          .fetchLimit = Locations::kBatchLimit,
          .includesPendingInsertions = false};
}

/// "nil" stands for the index of an empty list's first and last position.
std::optional<std::int64_t> firstIndex(const Locations::List& positions) {
  return positions.empty() ? std::nullopt : positions.front()->index();
}
std::optional<std::int64_t> lastIndex(const Locations::List& positions) {
  return positions.empty() ? std::nullopt : positions.back()->index();
}

}  // namespace

std::shared_ptr<Locations> Locations::getLastLocation(Context& context) {
  const auto newest =
      fetch(context, "Unresolved error ", {.sortDescriptors = {{"locationTimestamp", false}}, .fetchLimit = 1});
  if (!newest) return nullptr;
  if (newest->empty()) {
    Log::debug("Locations:getLastLocation [loc] [] mainThread:", mainThread());
    return nullptr;
  }
  Log::debug("Locations:getLastLocation [loc] loc:", newest->front()->description());
  return newest->front();
}

Locations::List Locations::getAllLocations(Context& context) {
  auto newest = fetch(context, "Unresolved error ",
                      {.sortDescriptors = {{"index", false}}, .fetchLimit = Locations::kBatchLimit});
  if (!newest) return {};
  Log::debug("getAllLocations lastindex = ", firstIndex(*newest), " first = ", lastIndex(*newest));
  return std::move(*newest);
}

Locations::List Locations::getUnsentLocations(Context& context) {
  // Read and dropped: the marker does not narrow the query.
  (void)UserDefaults::standard().integer(names::kUnsentLocation);
  auto oldest = fetch(context, "Unresolved error ", batch(neverPosted()));
  if (!oldest) return {};
  if (oldest->empty())
    Log::debug("Locations:getUnsentLocations [loc] [0] mainThread:", mainThread());
  else
    Log::debug("Locations:getUnsentLocations [loc] from:", firstIndex(*oldest), " to:", lastIndex(*oldest),
               " mainThread:", mainThread());
  return std::move(*oldest);
}

Locations::List Locations::getSentWithoutACKLocations(Context& context) {
  Log::debug("Locations:getSentWithoutACKLocations [loc] lastindexACK:",
             UserDefaults::standard().integer(names::kSentWithoutACK));
  auto oldest =
      fetch(context, "Locations:getSentWithoutACKLocations Unresolved error ", batch(awaitingAcknowledgement()));
  if (!oldest) return {};
  Log::debug("Locations:getSentWithoutACKLocations [loc] from:", firstIndex(*oldest), " to:", lastIndex(*oldest),
             " count : ", oldest->size(), " mainThread:", mainThread());
  return std::move(*oldest);
}

LocationRecords Locations::getLocationHistory(Context& context, Date since, Date until) {
  constexpr std::string_view failureText = "Locations:getLocationHistory Unresolved error ";
  const NSFetchRequest request{.entity = std::string(kEntity),
                               .predicates = {{"eventTimestamp", NSPredicate::Operator::atLeast, since},
                                              {"eventTimestamp", NSPredicate::Operator::atMost, until}},
                               .sortDescriptors = {{"index", true}}};
  LocationRecords history;
  if (context.hasChanges(kEntity)) {  // the file does not tell all
    const auto positions = fetch(context, failureText, request);
    if (!positions) return {};
    std::vector<LocationRecord> records;
    for (const auto& position : *positions) records.push_back(position->record());
    history = LocationRecords(std::move(records));
  } else {
    auto rows = context.rows(request);
    if (!rows) {
      Log::error(failureText, platform::errorAndUserInfo(rows.error()));
      return {};
    }
    history = storedPositions(std::move(*rows));
  }
  Log::debug("Locations:getLocationHistory [loc] from:", since, " to:", until, " count : ", history.size(),
             " mainThread:", mainThread());
  return history;
}

Locations::Counts Locations::counts(Context& context) {
  Counts counts;
  counts.unsaved = static_cast<std::int64_t>(context.pendingInsertions(kEntity));
  // The first count would get the one error that tells why there is no store, and nobody would hear of it.
  if (!context.coordinator().hasStore()) return counts;
  const auto inFile = [&context](std::vector<NSPredicate> state) {
    auto counted = count(context, {.predicates = std::move(state), .includesPendingInsertions = false});
    return counted ? static_cast<std::int64_t>(*counted) : 0;
  };
  counts.stored = inFile({});
  counts.unsent = inFile(neverPosted());
  counts.awaiting = inFile(awaitingAcknowledgement());
  auto newest = context.fetch({.entity = std::string(kEntity), .sortDescriptors = {{"index", false}}, .fetchLimit = 1});
  if (newest && !newest->empty()) counts.lastIndex = static_cast<const Locations&>(*newest->front()).index();
  return counts;
}

namespace {

/// When the position was stored that comes first among those in the file.
std::optional<Date> storageOfFirst(Locations::Context& context, std::vector<NSPredicate> state,
                                   platform::NSSortDescriptor order) {
  // The first request would get the one error that tells why there is no store, and nobody would hear of it.
  if (!context.coordinator().hasStore()) return std::nullopt;
  auto found = context.fetch({.entity = std::string(Locations::kEntity),
                              .predicates = std::move(state),
                              .sortDescriptors = {std::move(order)},
                              .fetchLimit = 1,
                              .includesPendingInsertions = false});
  if (!found || found->empty()) return std::nullopt;
  return found->front()->date(attribute::locations::eventTimestamp);
}

}  // namespace

std::optional<Date> Locations::latestStorage(Context& context, Date until) {
  return storageOfFirst(context, {{"eventTimestamp", NSPredicate::Operator::atMost, until}}, {"eventTimestamp", false});
}

std::optional<Date> Locations::firstStorageAfter(Context& context, Date moment) {
  const double next = std::nextafter(platform::secondsSince1970(moment), std::numeric_limits<double>::infinity());
  return storageOfFirst(context, {{"eventTimestamp", NSPredicate::Operator::atLeast, platform::dateSince1970(next)}},
                        {"eventTimestamp", true});
}

std::optional<Date> Locations::oldestUnacknowledgedStorage(Context& context) {
  const auto unsent = storageOfFirst(context, neverPosted(), {"index", true});
  const auto awaiting = storageOfFirst(context, awaitingAcknowledgement(), {"index", true});
  return unsent && awaiting ? std::min(*unsent, *awaiting) : unsent ? unsent : awaiting;
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
