#include "sandbox/derive/Derive.h"

#include <limits>
#include <nlohmann/json.hpp>

#include "sandbox/derive/Book.h"
#include "sandbox/derive/Habits.h"
#include "sandbox/derive/Places.h"
#include "sandbox/derive/Trips.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::int64_t kEveryNumber = std::numeric_limits<std::int64_t>::max();

void removeAll(Records& records, Kind kind) {
  for (const Row& row : records.numbered(kind, 0, kEveryNumber)) records.remove(kind, row.id);
}

Json numbered(const char* key, const Row& row) {
  Json json = {{key, row.id}};
  json.update(Json::parse(row.json));
  return json;
}

Json poi(const KnownPlace& place) {
  return {{"poi_id", place.id},
          {"lat", place.centre.lat},
          {"lon", place.centre.lon},
          {"point_geo_json", {{"type", "Point"}, {"coordinates", {place.centre.lon, place.centre.lat}}}},
          {"zone_geo_json", circleJson(place.centre, place.radius)},
          {"name", place.name},
          {"visits", place.visits},
          {"seconds", place.seconds}};
}

}  // namespace

Changes takeIn(Records& records, const std::vector<Point>& fresh) {
  Book book = readBook(records);
  Trips trips(records, book);
  trips.takeIn(fresh);
  Changes changes{.trips = trips.tripsChanged()};
  if (trips.stopsChanged()) {
    changes.places = updatePlaces(records, book);
    changes.prediction = updatePrediction(records, book);
  }
  write(records, book);
  return changes;
}

void forgetHistory(Records& records) {
  Book book = readBook(records);
  removeAll(records, Kind::Trip);
  book.lastTrip = book.tripCount = 0;
  book.historySince = book.newest;
  write(records, book);
}

void forgetGeoProfile(Records& records) {
  Book book = readBook(records);
  removeAll(records, Kind::Place);
  removeAll(records, Kind::Prediction);
  book.placeVersion = book.prediction = book.placeCount = 0;
  book.profileSince = book.newest;
  write(records, book);
}

Totals totals(Records& records) {
  const Book book = readBook(records);
  return {book.tripCount, book.placeCount};
}

std::string counters(Records& records) {
  const Book book = readBook(records);
  return Json({{"success", true},
               {"last_prediction_id", book.prediction},
               {"last_pasttrip_id", book.lastTrip},
               {"last_poi_id", book.placeVersion}})
      .dump();
}

std::string pastTrips(Records& records, std::int64_t first, std::int64_t last) {
  Json trips = Json::array();
  for (const Row& row : records.numbered(Kind::Trip, first, last)) trips.push_back(numbered("pasttrip_id", row));
  return Json({{"success", true}, {"trips", trips}}).dump();
}

std::string places(Records& records) {
  Json pois = Json::array();
  for (const KnownPlace& place : knownPlaces(records)) pois.push_back(poi(place));
  return Json({{"success", true}, {"pois", pois}}).dump();
}

std::string prediction(Records& records) {
  const auto rows = records.numbered(Kind::Prediction, 0, kEveryNumber);
  if (rows.empty()) return Json({{"success", false}, {"error", "no prediction"}}).dump();
  Json json = {{"success", true}};
  json.update(numbered("prediction_id", rows.back()));
  return json.dump();
}

}  // namespace tarvo::sandbox::derive
