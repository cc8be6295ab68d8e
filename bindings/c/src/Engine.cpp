// The engine behind the facade, and the records' own operations.

#include <tarvo-c/engine.h>

#include <algorithm>
#include <utility>

#include <tarvo/LocationManager.h>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

using platform::Array;
using platform::Dictionary;
using platform::Value;

/// An operation of the engine that takes nothing and gives nothing.
tarvo_result does(tarvo_sdk* sdk, void (LocationManager::*operation)()) {
  return bounded([&] {
    (at(sdk)->tarvo.locationManager().*operation)();
    return TARVO_OK;
  });
}

template <class Member>
void put(Dictionary& object, const char* name, const std::optional<Member>& member) {
  if (member) object.emplace(name, *member);
}

tarvo_result giveList(Array list, char** out) {
  const auto json = Value(std::move(list)).toJson();
  if (!json) return TARVO_INTERNAL;
  *out = given(*json);
  return TARVO_OK;
}

/// Objects that have an integer under `identifier`.
std::vector<Dictionary> objectsOf(const char* text, const char* identifier) {
  const Value list = json(text);
  if (list.asArray() == nullptr) throw Refusal{TARVO_BAD_JSON};
  std::vector<Dictionary> objects;
  for (const Value& one : *list.asArray()) {
    const Dictionary* object = one.asDictionary();
    if (object == nullptr || !platform::findInteger(*object, identifier)) throw Refusal{TARVO_BAD_JSON};
    objects.push_back(*object);
  }
  return objects;
}

std::string orEmpty(const char* bytes) { return bytes == nullptr ? "" : text(bytes); }
Dictionary orNone(const char* object) { return object == nullptr ? Dictionary() : jsonObject(object); }

}  // namespace

extern "C" {

tarvo_result tarvo_engine_start(tarvo_sdk* sdk) { return does(sdk, &LocationManager::start); }
tarvo_result tarvo_engine_stop(tarvo_sdk* sdk) { return does(sdk, &LocationManager::stop); }
tarvo_result tarvo_engine_foreground(tarvo_sdk* sdk) { return does(sdk, &LocationManager::foregroundMode); }
tarvo_result tarvo_engine_ask_again(tarvo_sdk* sdk) {
  return does(sdk, &LocationManager::requestAgainLocationAuthorization);
}
tarvo_result tarvo_engine_remove_trips(tarvo_sdk* sdk) { return does(sdk, &LocationManager::removeData); }
tarvo_result tarvo_engine_remove_places(tarvo_sdk* sdk) { return does(sdk, &LocationManager::removePOIs); }
tarvo_result tarvo_engine_register_user(tarvo_sdk* sdk) {
  return does(sdk, &LocationManager::registerUserToRemoteWebServer);
}

tarvo_result tarvo_engine_refresh(tarvo_sdk* sdk) {
  return bounded([&] {
    const auto object = at(sdk);
    if (!canTakePush(object->tarvo)) return TARVO_TOO_EARLY;
    object->tarvo.locationManager().refreshLoc();
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_ask(tarvo_sdk* sdk, int64_t mode, tarvo_permission* before) {
  return bounded([&] {
    const auto status = at(sdk)->tarvo.locationManager().checkAndRequestLocationAuthorization(mode);
    if (before != nullptr) *before = static_cast<tarvo_permission>(status);
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_last_location(tarvo_sdk* sdk, tarvo_fix* out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    const auto last = object->tarvo.locationManager().getLastLocation();
    if (!last) return TARVO_ABSENT;
    *out = fixOf(*last);
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_history(tarvo_sdk* sdk, tarvo_format format, double since, double until,
                                  tarvo_history** out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    if (format != TARVO_FORMAT_RAW && format != TARVO_FORMAT_EXTRAPOLATED) return TARVO_BAD_ARGUMENT;
    LocationManager& engine = object->tarvo.locationManager();
    auto history = format == TARVO_FORMAT_RAW ? engine.getLocationhistory(bound(since), bound(until))
                                              : engine.getLocationhistoryExtraPolated(bound(since), bound(until));
    *out = handleTo<tarvo_history>(std::make_shared<History>(History{std::move(history)}));
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_last_trip(tarvo_sdk* sdk, tarvo_history** out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    auto last = object->tarvo.locationManager().getLastPastTrip();
    if (!last) return TARVO_ABSENT;
    LocationsHistory history;
    history.pasttrips.push_back(*std::move(last));
    *out = handleTo<tarvo_history>(std::make_shared<History>(History{std::move(history)}));
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_places(tarvo_sdk* sdk, char** json) {
  return bounded([&] {
    const auto object = at(sdk);
    required(json);
    Array places;
    for (const PointOfInterestRecord& record : object->tarvo.locationManager().getPointOfInterest()) {
      Dictionary place;
      put(place, "poi_id", record.poi_id);
      put(place, "latitude", record.latitude);
      put(place, "longitude", record.longitude);
      put(place, "point_geo_json", record.point_geo_json);
      put(place, "zone_geo_json", record.zone_geo_json);
      places.emplace_back(std::move(place));
    }
    return giveList(std::move(places), json);
  });
}

tarvo_result tarvo_engine_users(tarvo_sdk* sdk, char** json) {
  return bounded([&] {
    const auto object = at(sdk);
    required(json);
    Array users;
    for (const UserRecord& record : object->tarvo.locationManager().getUser()) {
      Dictionary user;
      put(user, "uuid", record.uuid);
      put(user, "timestamp", record.timestamp);
      users.emplace_back(std::move(user));
    }
    return giveList(std::move(users), json);
  });
}

tarvo_result tarvo_engine_add_trips(tarvo_sdk* sdk, const char* json) {
  return bounded([&] {
    at(sdk)->tarvo.locationManager().addNewLastTrip(objectsOf(json, "pasttrip_id"));
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_add_places(tarvo_sdk* sdk, const char* json) {
  return bounded([&] {
    at(sdk)->tarvo.locationManager().addNewPOI(objectsOf(json, "poi_id"));
    return TARVO_OK;
  });
}

tarvo_result tarvo_engine_check_user(tarvo_sdk* sdk, char** uuid) {
  return bounded([&] {
    const auto object = at(sdk);
    required(uuid);
    const auto user = object->tarvo.locationManager().checkAndRegisterUser();
    if (!user) return TARVO_ABSENT;
    *uuid = given(*user);
    return TARVO_OK;
  });
}

tarvo_result tarvo_distance(const tarvo_fix* from, const tarvo_fix* to, double* metres) {
  return bounded([&] {
    required(metres);
    const auto isOnGlobe = [](const tarvo_fix& fix) {
      return fix.latitude >= -90 && fix.latitude <= 90 && fix.longitude >= -180 && fix.longitude <= 180;
    };
    if (!isOnGlobe(*required(from)) || !isOnGlobe(*required(to))) return TARVO_BAD_ARGUMENT;
    *metres = locationOf(*from).distanceFrom(locationOf(*to));
    return TARVO_OK;
  });
}

tarvo_result tarvo_trip_new(const tarvo_trip_info* info, const char* route, const char* geojson, tarvo_trip** out) {
  return bounded([&] {
    required(out);
    const auto contents = read(info, tarvo_trip_info{});
    Trip trip;
    trip.id = contents.id;
    trip.destination_lat = finiteNumber(contents.destination_latitude);
    trip.destination_lon = finiteNumber(contents.destination_longitude);
    trip.probability = finiteNumber(contents.probability);
    trip.duration = finiteNumber(contents.duration);
    trip.startTime = orEmpty(contents.start_time);
    trip.ArrivalTime = orEmpty(contents.arrival_time);
    trip.start_name = orEmpty(contents.start_name);
    trip.arrival_name = orEmpty(contents.arrival_name);
    trip.route = orNone(route);
    trip.next_destination = orNone(geojson);
    *out = handleTo<tarvo_trip>(std::make_shared<PredictedTrip>(PredictedTrip{std::move(trip)}));
    return TARVO_OK;
  });
}

tarvo_result tarvo_trip_coordinates(tarvo_trip* trip, char** json) {
  return bounded([&] {
    const auto object = at(trip);
    required(json);
    auto coordinates = object->content.tripToArray();
    return coordinates ? giveList(*std::move(coordinates), json) : TARVO_ABSENT;
  });
}

tarvo_result tarvo_cursor_copy(tarvo_cursor* cursor, tarvo_cursor** out) {
  return bounded([&] {
    const auto object = at(cursor);
    required(out);
    auto copy = std::make_shared<Cursor>(object->history);
    const std::lock_guard lock(object->mutex);
    copy->place = object->place;
    copy->piece.assign(object->piece.begin() + static_cast<std::ptrdiff_t>(object->next), object->piece.end());
    *out = handleTo<tarvo_cursor>(std::move(copy));
    return TARVO_OK;
  });
}

}  // extern "C"
