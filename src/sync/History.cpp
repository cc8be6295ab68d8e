#include "sync/History.h"

#include "log/Log.h"
#include "net/Reply.h"
#include "platform/foundation/FatalError.h"
#include "records/Positions.h"
#include "settings/Settings.h"
#include "store/Locations.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"

namespace tarvo {

using platform::concat;
using platform::Date;

namespace {

/// Stops the process unless the newest trip will have an integer identifier. Found out once a trip had been saved,
/// each later process would stop at it as well.
void requireIdentifiers(const std::vector<platform::Dictionary>& trips, PastTrips::Context& context) {
  bool isIdentified = trips.empty();
  for (const auto& trip : trips) {
    const platform::Value* id = platform::find(trip, "pasttrip_id");
    if (id == nullptr) continue;
    requireInteger(*id, "pasttrip_id");
    isIdentified = true;
  }
  if (!isIdentified && PastTrips::lackIdentifiers(context)) platform::fatalError("no past trip has an identifier");
}

}  // namespace

LocationsHistory History::getLocationhistory(std::optional<Date> since, std::optional<Date> until) {
  LocationsHistory history;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    history.locations = Locations::getLocationHistory(context, since.value_or(platform::distantPast()),
                                                      until.value_or(platform::distantFuture()));
    if (const auto first = PositionSource::of(history.locations).firstCoordinate())
      history.firstLocation = *first;
    else
      history.locations = {};
  });
  return history;
}

LocationsHistory History::getLocationhistoryExtraPolated(std::optional<Date> since, std::optional<Date> until) {
  LocationsHistory history;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    const auto trips = PastTrips::getLocationHistoryExtraPolated(context, since.value_or(platform::distantPast()),
                                                                 until.value_or(platform::distantFuture()));
    for (const auto& trip : trips) history.pasttrips.push_back(trip->record());
  });
  return history;
}

std::vector<PointOfInterestRecord> History::getPointOfInterest() {
  std::vector<PointOfInterestRecord> places;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    for (const auto& place : PointOfInterest::getPOIs(context)) places.push_back(place->record());
  });
  return places;
}

std::optional<PastTripRecord> History::getLastPastTrip() {
  std::optional<PastTripRecord> trip;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    if (const auto last = PastTrips::getLastPastTrip(context)) trip = last->record();
  });
  Log::debug("LocationManager:getLastPastTrip [loc] loc:", trip && trip->pasttrip_id ? concat(*trip->pasttrip_id) : "");
  return trip;
}

std::optional<LocationsHistory> History::addNewLastTrip(const std::vector<platform::Dictionary>& trips) {
  std::optional<PastTripRecord> newest;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    Log::debug("LocationManager:addNewLastTripToDatabase [loc] lasttrips:[Count] ", trips.size());
    requireIdentifiers(trips, context);
    for (const auto& trip : trips) {
      const platform::Value* id = platform::find(trip, "pasttrip_id");
      Log::debug("LocationManager:addNewLastTripToDatabase [loc] loc:", id ? platform::concat(*id) : "nil",
                 " mainThread:", mainThread());
      if (PastTrips::addLastTrip(trip, context)) store_.saveContext();
    }
    newest = getLastPastTrip();
    if (newest) {
      if (!newest->pasttrip_id) platform::fatalError("a stored past trip has no integer identifier");
      Settings::shared().lastTripID.set(*newest->pasttrip_id);
    }
  });
  if (!newest) return std::nullopt;
  LocationsHistory history;
  history.pasttrips.push_back(std::move(*newest));
  return history;
}

void History::addNewPOI(const std::vector<platform::Dictionary>& pois) {
  if (pois.empty()) return;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    for (const auto& poi : pois)
      if (PointOfInterest::addPOI(poi, context)) store_.saveContext();
  });
}

void History::removeData() {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] { PastTrips::removeData(context); });
}

void History::removePOIs() {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] { PointOfInterest::removePOIs(context); });
}

}  // namespace tarvo
