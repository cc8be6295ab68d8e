#include "sync/HistoryReads.h"

#include "log/Log.h"
#include "records/Positions.h"
#include "store/Locations.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"

namespace tarvo {

using platform::concat;
using platform::Date;

LocationsHistory HistoryReads::getLocationhistory(std::optional<Date> since, std::optional<Date> until) {
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

LocationsHistory HistoryReads::getLocationhistoryExtraPolated(std::optional<Date> since, std::optional<Date> until) {
  LocationsHistory history;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    const auto trips = PastTrips::getLocationHistoryExtraPolated(context, since.value_or(platform::distantPast()),
                                                                 until.value_or(platform::distantFuture()));
    for (const auto& trip : trips) history.pasttrips.push_back(trip->record());
  });
  return history;
}

std::vector<PointOfInterestRecord> HistoryReads::getPointOfInterest() {
  std::vector<PointOfInterestRecord> places;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    for (const auto& place : PointOfInterest::getPOIs(context)) places.push_back(place->record());
  });
  return places;
}

std::optional<PastTripRecord> HistoryReads::getLastPastTrip() {
  std::optional<PastTripRecord> trip;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    if (const auto last = PastTrips::getLastPastTrip(context)) trip = last->record();
  });
  Log::debug("LocationManager:getLastPastTrip [loc] loc:", trip && trip->pasttrip_id ? concat(*trip->pasttrip_id) : "");
  return trip;
}

}  // namespace tarvo
