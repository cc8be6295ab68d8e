// The latest position, predictions, places, and what is shown to the user.

#include <utility>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

tarvo_result giveTrip(std::optional<Trip> trip, tarvo_trip** out) {
  required(out);
  if (!trip) return TARVO_ABSENT;
  *out = handleTo<tarvo_trip>(std::make_shared<PredictedTrip>(PredictedTrip{*std::move(trip)}));
  return TARVO_OK;
}

tarvo_result giveJson(const platform::Dictionary& content, char** out) {
  const auto text = platform::Value(content).toJson();
  if (!text) return TARVO_ABSENT;
  *out = given(*text);
  return TARVO_OK;
}

tarvo_result giveFix(const std::optional<platform::CLLocation>& location, tarvo_fix* out) {
  if (!location) return TARVO_ABSENT;
  *out = fixOf(*location);
  return TARVO_OK;
}

const platform::AlertAction& actionOf(const ShownAlert& alert, std::size_t action) {
  if (action >= alert.content.actions.size()) throw Refusal{TARVO_ABSENT};
  return alert.content.actions[action];
}

}  // namespace

extern "C" {

tarvo_result tarvo_current_location(tarvo_sdk* sdk, tarvo_fix* out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    return giveFix(object->tarvo.getCurrentLocation(), out);
  });
}

tarvo_result tarvo_next_trip(tarvo_sdk* sdk, tarvo_trip** out) {
  return bounded([&] { return giveTrip(at(sdk)->tarvo.getNextTrip(), out); });
}

tarvo_result tarvo_last_prediction(tarvo_sdk* sdk, tarvo_trip** out) {
  return bounded([&] {
    at(sdk);
    return giveTrip(Tarvo::LastPrediction(), out);
  });
}

tarvo_result tarvo_set_last_prediction(tarvo_sdk* sdk, tarvo_trip* trip) {
  return bounded([&] {
    at(sdk);
    Tarvo::setLastPrediction(trip == nullptr ? Trip() : at(trip)->content);
    return TARVO_OK;
  });
}

tarvo_result tarvo_points_of_interest(tarvo_sdk* sdk, void (*each)(void* user, const char* geojson), void* user) {
  return bounded([&] {
    const auto object = at(sdk);
    if (each == nullptr) return TARVO_BAD_ARGUMENT;
    const auto zones = object->tarvo.getPointOfInterests();
    for (const std::string& zone : zones) each(user, zone.c_str());
    return zones.empty() ? TARVO_ABSENT : TARVO_OK;
  });
}

tarvo_trip* tarvo_trip_ref(tarvo_trip* trip) { return refTo(trip); }
void tarvo_trip_unref(tarvo_trip* trip) { unrefTo(trip); }

tarvo_result tarvo_trip_get(tarvo_trip* trip, tarvo_trip_info* out) {
  return bounded([&] {
    const auto object = at(trip);
    const Trip& content = object->content;
    write(out, {.size = 0,
                .id = content.id,
                .destination_latitude = content.destination_lat,
                .destination_longitude = content.destination_lon,
                .probability = content.probability,
                .duration = content.duration,
                .start_time = content.startTime.c_str(),
                .arrival_time = content.ArrivalTime.c_str(),
                .start_name = content.start_name.c_str(),
                .arrival_name = content.arrival_name.c_str()});
    return TARVO_OK;
  });
}

tarvo_result tarvo_trip_start_time(tarvo_trip* trip, char** out) {
  return bounded([&] {
    const auto object = at(trip);
    required(out);
    const auto start = object->content.getStartTime();
    if (!start) return TARVO_ABSENT;
    *out = given(*start);
    return TARVO_OK;
  });
}

tarvo_result tarvo_trip_route(tarvo_trip* trip, char** json) {
  return bounded([&] {
    const auto object = at(trip);
    return giveJson(object->content.route, required(json));
  });
}

tarvo_result tarvo_trip_geojson(tarvo_trip* trip, char** json) {
  return bounded([&] {
    const auto object = at(trip);
    return giveJson(object->content.next_destination, required(json));
  });
}

tarvo_result tarvo_trip_locations(tarvo_trip* trip, tarvo_fix* out, size_t capacity, size_t* count) {
  return bounded([&] {
    const auto object = at(trip);
    required(count);
    if (capacity > 0) required(out);
    const auto route = object->content.toLocations();
    if (!route) return TARVO_ABSENT;
    for (size_t i = 0; i < std::min(capacity, route->size()); ++i) out[i] = fixOf((*route)[i]);
    *count = route->size();
    return TARVO_OK;
  });
}

tarvo_result tarvo_trip_start(tarvo_trip* trip, tarvo_fix* out) {
  return bounded([&] {
    const auto object = at(trip);
    return giveFix(object->content.getStartTrip(), required(out));
  });
}

tarvo_result tarvo_trip_destination(tarvo_trip* trip, tarvo_fix* out) {
  return bounded([&] {
    const auto object = at(trip);
    return giveFix(object->content.getNextDestination(), required(out));
  });
}

tarvo_alert* tarvo_alert_ref(tarvo_alert* alert) { return refTo(alert); }
void tarvo_alert_unref(tarvo_alert* alert) { unrefTo(alert); }

tarvo_result tarvo_alert_texts(tarvo_alert* alert, const char** title, const char** message) {
  return bounded([&] {
    const auto object = at(alert);
    required(title), required(message);
    *title = object->content.title.c_str();
    *message = object->content.message.c_str();
    return TARVO_OK;
  });
}

tarvo_result tarvo_alert_action(tarvo_alert* alert, size_t action, const char** title, int* is_cancel) {
  return bounded([&] {
    const auto object = at(alert);
    required(title), required(is_cancel);
    const platform::AlertAction& offered = actionOf(*object, action);
    *title = offered.title.c_str();
    *is_cancel = offered.isCancel ? 1 : 0;
    return TARVO_OK;
  });
}

tarvo_result tarvo_alert_choose(tarvo_alert* alert, size_t action) {
  return bounded([&] {
    const auto object = at(alert);
    const platform::AlertAction& chosen = actionOf(*object, action);
    if (object->chosen.exchange(true)) return TARVO_ALREADY;
    if (chosen.handler) chosen.handler();
    return TARVO_OK;
  });
}

}  // extern "C"
