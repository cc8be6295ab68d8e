#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <tuple>

#include <tarvo/LocationsHistory.h>
#include <tarvo/Trip.h>

#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "records/Positions.h"
#include "support/LogDiary.h"

namespace tarvo {
namespace {

using platform::CLLocationCoordinate2D;
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
      {{on, enabled, bare}, feature("[2.25,48.5],[0.0001,3],[2.25 ,48.5]", false)},
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
  auto& log = test::LogDiary::installed();
  LocationsHistory history;
  history.locations = std::vector{position(48.5, 2.25)};
  const std::string text = history.toGeoJSON("MultiPoint").value();
  EXPECT_NE(text.find(R"("geometry":{"type":"MultiPoint","coordinates":[[2.25,48.5]]})"), std::string::npos);
  EXPECT_EQ(log.count("Tarvo:LocationHistory:toGeoJSON [tarvo] GeoJSON = " + text), 1U);
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
      {{trip("{"), trip(std::nullopt), trip("5"), trip(two), trip(one)}, {}, Coordinates{{-48, -179.5}, {48.85, 2.5}}},
      {{trip("no JSON")}, {position(1, 1)}, Coordinates{{-200, -200}, {-200, -200}}},
  };
  auto& log = test::LogDiary::installed();
  for (const auto& [trips, positions, corners] : cases) {
    LocationsHistory history;
    history.pasttrips = trips;
    history.locations = positions;
    EXPECT_EQ(history.getBoundingBox(), corners);
  }
  EXPECT_EQ(log.count("Tarvo:LocationHistory getBoundingBox:[error] : Error Domain="), 2U);
}

TEST(FixOfAPosition, TakesDefaultsOnlyWhereTheyAreAskedFor) {
  LocationRecord whole = position(48.5, 2.25);
  whole.altitude = whole.horizontalAccuracy = whole.verticalAccuracy = whole.course = whole.speed = 5;
  whole.floor = -2;
  const std::tuple<std::function<void(LocationRecord&)>, const char*, const char*> cases[] = {
      {[](auto&) {}, "5 5 -2", "5 5 -2"},
      {[](auto& position) { position.speed = {}; }, "", "5 -1 -2"},
      {[](auto& position) { position.altitude = {}; }, "", "0 5 -2"},
      {[](auto& position) { position.locationTimestamp = {}; }, "", ""},
      {[](auto& position) { position.floor = std::int64_t{1} << 40; }, "5 5 0", "5 5 0"},
  };
  const auto text = [](const std::optional<platform::CLLocation>& fix) {
    return fix ? platform::concat(fix->altitude, " ", fix->speed, " ", fix->floor.value_or(0)) : "";
  };
  LocationsHistory history;
  for (const auto& [change, strict, lenient] : cases) {
    LocationRecord record = whole;
    change(record);
    EXPECT_EQ(text(fixOf(record, Missing::givesNoFix)), strict);
    history.locations = std::vector{record};
    const auto fixes = history.toArray();
    EXPECT_EQ(text(fixes.empty() ? std::nullopt : std::optional(fixes.front())), lenient);
  }
}

TEST(PredictedTrip, ReadsTheFirstFeatureOfTheNextDestination) {
  const Coordinates line{{48.85, 2.35}, {48.86, 2.36}};
  const std::tuple<const char*, std::optional<Coordinates>, std::optional<CLLocationCoordinate2D>> cases[] = {
      {R"({"features":[3,{"geometry":{"coordinates":[[1,2]]}}]})", std::nullopt, std::nullopt},
      {R"({"features":[{"geometry":{"coordinates":[]}}]})", Coordinates{}, std::nullopt},
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
    const auto first = prediction.getStartTrip();
    EXPECT_EQ(first ? std::optional(first->coordinate) : std::nullopt, start);
    EXPECT_EQ(prediction.getNextDestination()->coordinate, (CLLocationCoordinate2D{-200, -200})) << "while unset";
  }
}

TEST(PredictedTrip, TellsItsStartInTheZoneOfTheDevice) {
  ::setenv("TZ", "Etc/GMT-1", 1);
  ::setenv("LC_ALL", "ar_EG.UTF-8", 1);
  const std::pair<const char*, std::optional<std::string>> cases[] = {
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

}  // namespace
}  // namespace tarvo
