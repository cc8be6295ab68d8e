// Histories, positions, past trips.

#include <cmath>
#include <utility>

#include <tarvo/Records.h>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

static_assert(TARVO_FORMAT_RAW == Tarvo::TARVO_FORMAT_RAW);
static_assert(TARVO_FORMAT_EXTRAPOLATED == Tarvo::TARVO_FORMAT_EXTRAPOLATED);

/// How many positions are read at once: 130 KB of them.
constexpr std::size_t kPiece = 256;

/// Takes what is there into a member and notes that it is.
struct Members {
  std::uint64_t& has;

  template <class From, class To>
  void take(const std::optional<From>& from, To& to, int bit) {
    if (!from) return;
    to = static_cast<To>(*from);
    has |= static_cast<std::uint64_t>(bit);
  }
  void take(const std::optional<platform::Date>& from, double& to, int bit) {
    if (from) take(std::optional(platform::secondsSince1970(*from)), to, bit);
  }
};

const char* orNull(const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; }

tarvo_position positionOf(const LocationRecord& record) {
  tarvo_position position{};
  Members members{position.has};
  members.take(record.latitude, position.latitude, TARVO_HAS_LATITUDE);
  members.take(record.longitude, position.longitude, TARVO_HAS_LONGITUDE);
  members.take(record.altitude, position.altitude, TARVO_HAS_ALTITUDE);
  members.take(record.horizontalAccuracy, position.horizontal_accuracy, TARVO_HAS_HORIZONTAL_ACCURACY);
  members.take(record.verticalAccuracy, position.vertical_accuracy, TARVO_HAS_VERTICAL_ACCURACY);
  members.take(record.course, position.course, TARVO_HAS_COURSE);
  members.take(record.speed, position.speed, TARVO_HAS_SPEED);
  members.take(record.locationTimestamp, position.fix_time, TARVO_HAS_FIX_TIME);
  members.take(record.eventTimestamp, position.stored_time, TARVO_HAS_STORED_TIME);
  members.take(record.floor, position.floor, TARVO_HAS_FLOOR);
  members.take(record.index, position.index, TARVO_HAS_INDEX);
  members.take(record.unsent, position.unsent, TARVO_HAS_UNSENT);
  members.take(record.sentWithoutACK, position.sent_without_ack, TARVO_HAS_SENT_WITHOUT_ACK);
  position.service_action = orNull(record.serviceAction);
  position.localisation_method = orNull(record.localisationMethod);
  position.user_action = orNull(record.userAction);
  position.app_name = orNull(record.appName);
  position.app_action = orNull(record.appAction);
  position.identifier_for_vendor = orNull(record.identifierForVendor);
  return position;
}

tarvo_past_trip pastTripOf(const PastTripRecord& record) {
  tarvo_past_trip trip{};
  Members members{trip.has};
  members.take(record.pasttrip_id, trip.id, TARVO_TRIP_HAS_ID);
  members.take(record.departure_lat, trip.departure_latitude, TARVO_TRIP_HAS_DEPARTURE_LATITUDE);
  members.take(record.departure_lon, trip.departure_longitude, TARVO_TRIP_HAS_DEPARTURE_LONGITUDE);
  members.take(record.arrival_lat, trip.arrival_latitude, TARVO_TRIP_HAS_ARRIVAL_LATITUDE);
  members.take(record.arrival_lon, trip.arrival_longitude, TARVO_TRIP_HAS_ARRIVAL_LONGITUDE);
  members.take(record.start_time, trip.start_time, TARVO_TRIP_HAS_START_TIME);
  members.take(record.arrival_time, trip.arrival_time, TARVO_TRIP_HAS_ARRIVAL_TIME);
  trip.route = orNull(record.route);
  return trip;
}

}  // namespace

extern "C" {

tarvo_result tarvo_get_history(tarvo_sdk* sdk, tarvo_format format, double since, double until, tarvo_history** out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    if (format != TARVO_FORMAT_RAW && format != TARVO_FORMAT_EXTRAPOLATED) return TARVO_BAD_ARGUMENT;
    auto history = object->tarvo.getLocationHistory(static_cast<int>(format), bound(since), bound(until));
    if (!history) return TARVO_ABSENT;
    *out = handleTo<tarvo_history>(std::make_shared<History>(History{*std::move(history)}));
    return TARVO_OK;
  });
}

tarvo_history* tarvo_history_ref(tarvo_history* history) { return refTo(history); }
void tarvo_history_unref(tarvo_history* history) { unrefTo(history); }

size_t tarvo_history_positions(tarvo_history* history) {
  size_t count = 0;
  bounded([&] {
    count = at(history)->content.locations.size();
    return TARVO_OK;
  });
  return count;
}

size_t tarvo_history_trips(tarvo_history* history) {
  size_t count = 0;
  bounded([&] {
    count = at(history)->content.pasttrips.size();
    return TARVO_OK;
  });
  return count;
}

tarvo_result tarvo_history_read(tarvo_history* history, tarvo_cursor** out) {
  return bounded([&] {
    auto object = at(history);
    *required(out) = handleTo<tarvo_cursor>(std::make_shared<Cursor>(std::move(object)));
    return TARVO_OK;
  });
}

tarvo_result tarvo_cursor_next(tarvo_cursor* cursor, tarvo_position* out) {
  return bounded([&] {
    const auto object = at(cursor);
    sizeOf(out);
    const std::lock_guard lock(object->mutex);
    if (object->next == object->piece.size()) {
      auto piece = object->history->content.locations.next(object->place, kPiece);
      if (!piece) return TARVO_UNFINISHED;
      object->piece = *std::move(piece);
      object->next = 0;
      if (object->piece.empty()) return TARVO_ABSENT;
    }
    write(out, positionOf(object->piece[object->next]));
    ++object->next;
    return TARVO_OK;
  });
}

void tarvo_cursor_free(tarvo_cursor* cursor) { unrefTo(cursor); }

tarvo_result tarvo_history_trip(tarvo_history* history, size_t trip, tarvo_past_trip* out) {
  return bounded([&] {
    const auto object = at(history);
    sizeOf(out);
    if (trip >= object->content.pasttrips.size()) return TARVO_ABSENT;
    write(out, pastTripOf(object->content.pasttrips[trip]));
    return TARVO_OK;
  });
}

tarvo_result tarvo_history_bounds(tarvo_history* history, tarvo_bounds* out) {
  return bounded([&] {
    const auto object = at(history);
    required(out);
    const auto box = object->content.getBoundingBox();
    if (!box || box->size() < 2) return TARVO_ABSENT;
    const auto &southWest = box->front(), &northEast = box->back();
    *out = {southWest.latitude, southWest.longitude, northEast.latitude, northEast.longitude};
    return TARVO_OK;
  });
}

tarvo_result tarvo_history_first(tarvo_history* history, double* latitude, double* longitude) {
  return bounded([&] {
    const auto first = at(history)->content.getFirstLocation();
    required(latitude), required(longitude);
    *latitude = first.latitude;
    *longitude = first.longitude;
    return TARVO_OK;
  });
}

tarvo_result tarvo_history_geojson(tarvo_history* history, tarvo_geometry geometry, char** json, size_t* length) {
  return bounded([&] {
    const auto object = at(history);
    required(json);
    const bool isLine = oneOf(geometry, TARVO_MULTIPOINT) == TARVO_LINESTRING;
    const auto text = object->content.toGeoJSON(isLine ? Tarvo::GEOJSON_LINESTRING : Tarvo::GEOJSON_MULTIPOINT);
    if (!text) return TARVO_ABSENT;
    *json = given(*text);
    if (length != nullptr) *length = text->size();
    return TARVO_OK;
  });
}

}  // extern "C"
