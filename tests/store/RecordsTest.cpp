#include <cstdlib>
#include <tuple>

#include <tarvo/LocationsHistory.h>
#include <tarvo/Trip.h>

#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "records/LatestPrediction.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/StoreFixture.h"
#include "store/Users.h"

namespace tarvo {
namespace {

using platform::CLLocationCoordinate2D;
using test::logged;
using Coordinates = std::vector<CLLocationCoordinate2D>;

LocationRecord position(double latitude, double longitude, std::optional<std::string> serviceAction = "loc_changed") {
  LocationRecord record;
  record.latitude = latitude;
  record.longitude = longitude;
  record.serviceAction = std::move(serviceAction);
  record.locationTimestamp = platform::dateSince1970(1488442530.5);
  return record;
}

PastTripRecord trip(std::optional<std::string> route) {
  PastTripRecord record;
  record.route = std::move(route);
  return record;
}

std::string collection(const std::string& features) {
  return R"({ "type":"FeatureCollection","features":[)" + features + "]}";
}

std::string feature(const std::string& coordinates, bool disabled) {
  return R"({"type":"Feature","geometry":{"type":"LineString","coordinates":[)" + coordinates + R"(]},"properties":{)" +
         (disabled ? R"("stroke":"#FF0000","strokeColor":"#FF0000","marker-color":"#000000"}})"
                   : R"("stroke":"#009F00","strokeColor":"#009F00","marker-color":"#009F00"}})");
}

TEST(HistoryGeoJson, CutsFeaturesWhereCollectionIsSwitchedButNotBeforeTheLastPosition) {
  const auto on = position(48.5, 2.25), off = position(1, -2, "loc_disabled"),
             enabled = position(3, 0.0001, "loc_enabled"), bare = position(48.5, 2.25, std::nullopt);
  const LocationRecord unfilled;
  const std::pair<std::vector<LocationRecord>, std::string> cases[] = {
      {{on}, feature("[2.25,48.5]", false)},
      {{off}, feature("[-2,1]", true)},
      {{on, enabled, bare}, feature("[2.25,48.5],[0.0001,3],[2.25 ,48.5]", false)},
      {{on, off}, feature("[2.25,48.5],[-2 ,1]", false)},
      {{on, off, enabled}, feature("[2.25,48.5]", false) + "," + feature("[-2,1],[0.0001 ,3]", true)},
      {{off, off, on, on, off, on},
       feature("[-2,1],[-2,1]", true) + "," + feature("[2.25,48.5],[2.25,48.5]", false) + "," +
           feature("[-2,1],[2.25 ,48.5]", true)},
      {{unfilled, on, unfilled, off, unfilled}, feature("[2.25,48.5],[-2 ,1]", false)},
  };
  for (const auto& [positions, features] : cases) {
    LocationsHistory history;
    history.locations = positions;
    const std::string text = history.toGeoJSON("LineString").value();
    EXPECT_EQ(text, collection(features));
    EXPECT_TRUE(platform::parseJson(text)) << text;
  }
}

TEST(HistoryGeoJson, NamesTheGeometryAskedForAndLogsTheWholeText) {
  test::LogDiary::installed();
  LocationsHistory history;
  EXPECT_EQ(history.toGeoJSON("MultiPoint"), std::nullopt);
  history.locations = std::vector{position(48.5, 2.25), position(1, -2)};
  const std::string text = history.toGeoJSON("MultiPoint").value();
  EXPECT_NE(text.find(R"("geometry":{"type":"MultiPoint","coordinates":[[2.25,48.5],[-2 ,1]]})"), std::string::npos);
  EXPECT_EQ(logged("Tarvo:LocationHistory:toGeoJSON [tarvo] GeoJSON = " + text), 1U);
  history.pasttrips = {trip("a"), trip(std::nullopt), trip("b")};
  EXPECT_EQ(history.toGeoJSON(), (std::vector<std::string>{"a", "b"}));
}

TEST(HistoryBoundingBox, HoldsAllTripsOrElseAllPositions) {
  const std::string two = R"({"features":[{"geometry":{"type":"LineString","coordinates":[[2.35,48.85],[2.5,-48]]}},
      {"geometry":{"type":"Point","coordinates":[-179.5,0.25]}},{"geometry":null},7]})";
  const std::string one = R"({"features":[{"geometry":{"coordinates":[[2.35,48.85]]}}]})";
  const std::tuple<std::vector<PastTripRecord>, std::vector<LocationRecord>, std::optional<Coordinates>> cases[] = {
      {{}, {}, std::nullopt},
      {{}, {position(48.5, 2.25), position(-10, 3), position(50, -4)}, Coordinates{{-10, -4}, {50, 3}}},
      {{trip(one)}, {position(0, 0)}, Coordinates{{48.85, 2.35}, {48.85, 2.35}}},
      {{trip("{"), trip(std::nullopt), trip("5"), trip(two), trip(one)}, {}, Coordinates{{-48, -179.5}, {48.85, 2.5}}},
      {{trip("no JSON")}, {position(1, 1)}, Coordinates{{-200, -200}, {-200, -200}}},
  };
  test::LogDiary::installed();
  for (const auto& [trips, positions, corners] : cases) {
    LocationsHistory history;
    history.pasttrips = trips;
    history.locations = positions;
    EXPECT_EQ(history.getBoundingBox(), corners);
  }
  EXPECT_EQ(logged("Tarvo:LocationHistory getBoundingBox:[error] : Error Domain="), 2U);
  EXPECT_EQ(logged("Tarvo: LocationHistory getBoundingBox ----------minlon = 2.35 -------maxlon :2.35--------------- "),
            1U);
}

TEST(HistoryArray, HasAFixForEachPositionThatIsWhole) {
  LocationsHistory history;
  EXPECT_TRUE(history.toArray().empty());
  std::vector<LocationRecord> positions{position(48.5, 2.25), LocationRecord{}, position(1, -2)};
  positions[2].speed = 3.5;
  positions[2].altitude = 100.25;
  history.locations = positions;
  const auto fixes = history.toArray();
  ASSERT_EQ(fixes.size(), 2U);
  EXPECT_EQ(fixes[0].coordinate, (CLLocationCoordinate2D{48.5, 2.25}));
  EXPECT_EQ(fixes[0].timestamp, positions[0].locationTimestamp);
  EXPECT_EQ(std::tie(fixes[1].speed, fixes[1].altitude), std::tuple(3.5, 100.25));
}

TEST(PredictedTrip, ReadsTheFirstFeatureOfTheNextDestination) {
  const Coordinates line{{48.85, 2.35}, {48.86, 2.36}};
  const std::tuple<const char*, std::optional<Coordinates>, std::optional<CLLocationCoordinate2D>> cases[] = {
      {R"({})", std::nullopt, std::nullopt},
      {R"({"type":"x"})", std::nullopt, std::nullopt},
      {R"({"features":[]})", std::nullopt, std::nullopt},
      {R"({"features":{}})", std::nullopt, std::nullopt},
      {R"({"features":[3,{"geometry":{"coordinates":[[1,2]]}}]})", std::nullopt, std::nullopt},
      {R"({"features":[{"geometry":{"coordinates":[]}}]})", Coordinates{}, std::nullopt},
      {R"({"features":[{"geometry":{"coordinates":[[2.35,48.85],["a",1]]}}]})", std::nullopt, line[0]},
      {R"({"features":[{"geometry":{"coordinates":[[2.35,48.85],[2.36,48.86,12]]}}]})", std::nullopt, line[0]},
      {R"({"features":[{"geometry":{"coordinates":[[2.35,48.85],[2.36,48.86]]}},
          {"geometry":{"coordinates":[[0,0]]}}]})",
       line, line[0]},
  };
  for (const auto& [nextDestination, coordinates, start] : cases) {
    SCOPED_TRACE(nextDestination);
    Trip prediction;
    prediction.next_destination = *platform::parseJson(nextDestination)->asDictionary();
    EXPECT_EQ(prediction.toLocationCoordinate2D(), coordinates);
    const auto locations = prediction.toLocations();
    ASSERT_EQ(locations.has_value(), coordinates.has_value());
    for (std::size_t i = 0; locations && i < locations->size(); ++i)
      EXPECT_EQ((*locations)[i].coordinate, (*coordinates)[i]);
    const auto first = prediction.getStartTrip();
    EXPECT_EQ(first ? std::optional(first->coordinate) : std::nullopt, start);
  }
}

TEST(PredictedTrip, TellsItsStartInTheZoneOfTheDevice) {
  ::setenv("TZ", "Etc/GMT-1", 1);
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"", std::nullopt},
      {"soon", std::nullopt},
      {"2017-03-02T08:15:30.123+0000", "2017-03-02T09:15:30.123+0100"},
      {"2017-03-02T08:15:30.1239-0230", "2017-03-02T11:45:30.123+0100"},
      // The week year goes ahead of the calendar's.
      {"2024-12-30T23:30:00.000+0000", "2025-12-31T00:30:00.000+0100"},
  };
  for (const auto& [startTime, local] : cases) {
    Trip prediction;
    prediction.startTime = startTime;
    EXPECT_EQ(prediction.getStartTime(), local) << startTime;
  }
}

TEST(PredictedTrip, IsCopiedOutAndNowhereAtFirst) {
  EXPECT_EQ(Trip().getNextDestination()->coordinate, (CLLocationCoordinate2D{-200, -200}));
  Trip prediction;
  prediction.id = 5;
  latestPrediction().set(prediction);
  const Trip held = latestPrediction().get();
  latestPrediction().set(Trip());
  EXPECT_EQ(held.id, 5);
  EXPECT_EQ(latestPrediction().get().id, 0);
}

using Context = platform::NSManagedObjectContext;
using platform::Date;

platform::Dictionary json(std::string_view text) { return *platform::parseJson(text)->asDictionary(); }

Date at(int hourUTC, int minute = 0) {
  return platform::dateSince1970(1488412800.0 + hourUTC * 3600 + minute * 60);  // 2017-03-02
}

using StoredTrips = test::StoreTest;
using StoredPlaces = test::StoreTest;
using StoredUsers = test::StoreTest;

TEST_F(StoredTrips, AreReplacedById) {
  within([&](Context& context) {
    for (const bool saveBetween : {false, true}) {
      PastTrips::addLastTrip(json(R"({"pasttrip_id":7,"arrival_lat":1.5,"route":{}})"), context);
      ASSERT_FALSE(saveBetween && context.save());
      PastTrips::addLastTrip(json(R"({"pasttrip_id":7,"arrival_lat":2.5,"route":{"b":[1,2.5],"a":null}})"), context);
    }
    EXPECT_EQ(context.count({.entity = "PastTrips"}).value(), 1U);
    const PastTripRecord trip = PastTrips::getLastPastTrip(context)->record();
    EXPECT_EQ(std::tie(trip.arrival_lat, trip.arrival_lon, trip.departure_lat), std::tuple(2.5, 0.0, 0.0));
    EXPECT_EQ(trip.start_time, std::nullopt);
    EXPECT_EQ(trip.route, R"({"a":null,"b":[1,2.5]})");
  });
  EXPECT_EQ(logged("LastTrips removeData pasttrip_id 7"), 3U);
}

TEST_F(StoredTrips, ReadWhatTheyCanOfAnOddAnswer) {
  within([&](Context& context) {
    const auto odd = PastTrips::addLastTrip(
        json(R"({"pasttrip_id":"7","arrival_lat":"x","departure_lon":null,"start_time":"yesterday","arrival_time":3})"),
        context);
    const PastTripRecord record = odd->record();
    EXPECT_EQ(std::tie(record.arrival_lat, record.departure_lon), std::tuple(0.0, 0.0));
    EXPECT_FALSE(record.pasttrip_id || record.start_time || record.arrival_time || record.route);
    EXPECT_TRUE(
        PastTrips::getLocationHistoryExtraPolated(context, platform::distantPast(), platform::distantFuture()).empty());
  });
  EXPECT_EQ(logged("PastTrips:addLastTrip Unresolved error Error Domain="), 1U);
}

TEST_F(StoredTrips, AreFoundByTheirStartInIdentifierOrder) {
  within([&](Context& context) {
    const auto found = [&](Date since, Date until) {
      std::string ids;
      for (const auto& trip : PastTrips::getLocationHistoryExtraPolated(context, since, until))
        ids += platform::concat(trip->pasttripID().value(), " ");
      return ids;
    };
    EXPECT_EQ(PastTrips::getLastPastTrip(context), nullptr);
    EXPECT_EQ(found(platform::distantPast(), platform::distantFuture()), "");
    for (const char* trip : {R"({"pasttrip_id":12,"start_time":"2017-03-02T07:30:00.000+0000"})",
                             R"({"pasttrip_id":1000,"start_time":"2017-03-02T07:00:00.000+0000"})",
                             R"({"pasttrip_id":999,"start_time":"2017-03-02T08:15:30.123+0100"})"})
      PastTrips::addLastTrip(json(trip), context);
    for (const bool saved : {false, true}) {
      ASSERT_FALSE(saved && context.save());
      EXPECT_EQ(PastTrips::getLastPastTrip(context)->pasttripID(), 1000);
      EXPECT_EQ(found(at(7), at(8)), "12 999 1000 ");
      EXPECT_EQ(found(at(7, 30), at(9)), "12 ");
      EXPECT_EQ(found(at(8), at(9)), "");
    }
    PastTrips::removeData(context);
    EXPECT_EQ(PastTrips::getLastPastTrip(context), nullptr);
  });
}

TEST_F(StoredPlaces, AreNeverReplacedAndComeHighestIdentifierFirst) {
  within([&](Context& context) {
    const char* whole =
        R"({"poi_id":11,"lat":48.5,"lon":2.5,"point_geo_json":{"type":"Point"},"zone_geo_json":{"z":[]}})";
    for (const char* place : {R"({"poi_id":3,"lat":true,"point_geo_json":{}})", whole, R"({"poi_id":5})", whole})
      PointOfInterest::addPOI(json(place), context);
    ASSERT_FALSE(context.save());
    std::vector<std::int64_t> ids;
    std::vector<PointOfInterestRecord> places;
    for (const auto& place : PointOfInterest::getPOIs(context)) {
      places.push_back(place->record());
      ids.push_back(places.back().poi_id.value());
    }
    ASSERT_EQ(ids, (std::vector<std::int64_t>{11, 11, 5, 3}));
    EXPECT_EQ(std::tie(places[0].latitude, places[0].longitude, places[0].point_geo_json, places[0].zone_geo_json),
              std::tuple(48.5, 2.5, R"({"type":"Point"})", R"({"z":[]})"));
    EXPECT_EQ(std::tie(places[3].latitude, places[3].point_geo_json, places[3].zone_geo_json),
              std::tuple(std::nullopt, "{}", std::nullopt));
    PointOfInterest::removePOIs(context);
    EXPECT_TRUE(PointOfInterest::getPOIs(context).empty());
  });
  EXPECT_EQ(logged("PointOfInterest:addPOI:Failed to load GEOJSON: "), 3U);
  EXPECT_EQ(logged("PointOfInterest:addPOI Unresolved error "), 2U);
  EXPECT_EQ(logged("removePOIs removeData pasttrip_id 11"), 2U);
}

TEST_F(StoredUsers, FirstOneGivesTheIdentifier) {
  within([&](Context& context) {
    EXPECT_EQ(Users::getUserUUID(context), std::nullopt);
    Users::addUser("u-1", "2017-03-02", context);
    ASSERT_FALSE(context.save());
    Users::addUser("u-2", "2017-03-03", context);
    EXPECT_EQ(Users::getUserUUID(context), "u-1");
    const auto users = Users::getUsers(context);
    ASSERT_EQ(users.size(), 2U);
    EXPECT_EQ(users[1]->timestamp(), "2017-03-03");
  });
}

}  // namespace
}  // namespace tarvo
