#include "store/PastTrips.h"

#include <limits>
#include <utility>

#include "log/Log.h"
#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "store/Attributes.h"

namespace tarvo {

namespace at = attribute::past_trips;
using platform::Date;
using platform::errorAndUserInfo;
using Operator = platform::NSPredicate::Operator;

namespace {

constexpr std::string_view kRemoved = "LastTrips removeData pasttrip_id ";

struct Coordinate {
  at::Position attribute;
  std::string_view logText;
};

constexpr Coordinate kCoordinates[] = {
    {at::arrival_lat, "PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] arrival_lat:"},
    {at::arrival_lon, "PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] arrival_lon:"},
    {at::departure_lat, "PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] departure_lat:"},
    {at::departure_lon, "PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] departure_lon:"},
};

/// The offset in the text decides, so the formatter's own zone does not matter.
std::optional<Date> dateUnder(const platform::Dictionary& trip, std::string_view key) {
  static const auto* formatter = new platform::DateFormatter("YYYY-MM-dd'T'HH:mm:ss.SSSZ");
  const auto text = platform::findString(trip, key);
  return text ? formatter->date(*text) : std::nullopt;
}

void setRoute(PastTrips& added, const platform::Dictionary& trip) {
  const platform::Value* found = platform::find(trip, "route");
  static const auto& none = *new platform::Value;
  const platform::Value& route = found ? *found : none;
  if (auto text = platform::serializeJson(route)) {
    added.setString(at::route, *text);
    Log::debug("PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] route:", *text);
  } else if (!platform::isValidUtf8(platform::concat(route))) {
    Log::debug("PastTrips:addLastTrip:Failed to load GEOJSON: ", route);
  } else {
    Log::error("PastTrips:addLastTrip Unresolved error ", errorAndUserInfo(text.error()));
  }
}

}  // namespace

std::shared_ptr<PastTrips> PastTrips::addLastTrip(const platform::Dictionary& trip, Context& context) {
  const auto id = platform::findInteger(trip, "pasttrip_id");
  if (id) removeTripIfExist(context, *id);
  platform::faultPoint("downloads: older trip removed");
  const auto added = insert(context);
  if (!added) return nullptr;
  added->setInteger(at::pasttrip_id, id);
  Log::debug("PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] pasttrip_id:", id);
  for (const auto& [attribute, logText] : kCoordinates) {
    const double value = platform::findNumber(trip, at::kAll[attribute].name).value_or(0);
    added->setNumber(attribute, value);
    Log::debug(logText, value);
  }
  added->setDate(at::start_time, dateUnder(trip, "start_time"));
  Log::debug("PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] start_time:",
             added->date(at::start_time));
  added->setDate(at::arrival_time, dateUnder(trip, "arrival_time"));
  Log::debug("PastTrips:addLastTrip:getLocationHistoryEXTRAPOLATED [net] [succes] arrival_time:",
             added->date(at::arrival_time));
  setRoute(*added, trip);
  return added;
}

void PastTrips::removeTripIfExist(Context& context, std::int64_t pasttripID) {
  remove(context, "LastTrips removeTripIfExist Unresolved error ", kRemoved, at::pasttrip_id,
         {.predicates = {{"pasttrip_id", Operator::equal, pasttripID}}});
}

std::shared_ptr<PastTrips> PastTrips::getLastPastTrip(Context& context) {
  Log::debug("LastTrips:getLastPastTrip [loc] [] mainThread:", mainThread());
  const auto newest =
      fetch(context, " LastTrips Unresolved error ", {.sortDescriptors = {{"pasttrip_id", false}}, .fetchLimit = 1});
  if (!newest || newest->empty()) return nullptr;
  Log::debug("LastTrips:getLastPastTrip [loc] pasttrip_ID:", newest->front()->pasttripID(),
             " mainThread:", mainThread());
  return newest->front();
}

bool PastTrips::lackIdentifiers(Context& context) {
  if (!context.coordinator().hasStore()) return false;  // why, is for an operation that logs it
  auto identified =
      count(context, {.predicates = {{"pasttrip_id", Operator::atLeast, std::numeric_limits<std::int64_t>::min()}}});
  return identified && *identified == 0;
}

PastTrips::List PastTrips::getLocationHistoryExtraPolated(Context& context, Date since, Date until) {
  auto trips = fetch(context, "LastTrips:getLocationHistory Unresolved error ",
                     {.predicates = {{"start_time", Operator::atLeast, since}, {"start_time", Operator::atMost, until}},
                      .sortDescriptors = {{"pasttrip_id", true}}});
  if (!trips) return {};
  const auto printed = [&](bool first) {
    if (trips->empty()) return std::string("nil");
    const PastTrips& trip = first ? *trips->front() : *trips->back();
    return platform::concat(trip.pasttripID(), trip.description());
  };
  Log::debug("LastTrips:getLocationHistory [loc] from:", printed(true), " to:", printed(false),
             " count : ", trips->size(), " mainThread:", mainThread());
  return std::move(*trips);
}

void PastTrips::removeData(Context& context) {
  remove(context, "LastTrips removeData Unresolved error ", kRemoved, at::pasttrip_id);
}

PastTripRecord PastTrips::record() const {
  PastTripRecord record;
  record.pasttrip_id = integer(at::pasttrip_id);
  record.departure_lat = number(at::departure_lat);
  record.departure_lon = number(at::departure_lon);
  record.arrival_lat = number(at::arrival_lat);
  record.arrival_lon = number(at::arrival_lon);
  record.start_time = date(at::start_time);
  record.arrival_time = date(at::arrival_time);
  record.route = text(at::route);
  return record;
}

std::optional<std::int64_t> PastTrips::pasttripID() const { return integer(at::pasttrip_id); }

std::string PastTrips::description() const {
  return platform::concat("{departure:", number(at::departure_lat), ",", number(at::departure_lon),
                          " arrival:", number(at::arrival_lat), ",", number(at::arrival_lon),
                          " start_time:", date(at::start_time), " arrival_time:", date(at::arrival_time), "}");
}

}  // namespace tarvo
