#include <tuple>

#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/StoreFixture.h"

namespace tarvo {
namespace {

using test::logged;
using Context = platform::NSManagedObjectContext;
using platform::Date;

platform::Dictionary json(std::string_view text) { return *platform::parseJson(text)->asDictionary(); }

Date at(int hourUTC, int minute = 0) {
  return platform::dateSince1970(1488412800.0 + hourUTC * 3600 + minute * 60);  // 2017-03-02
}

using StoredTrips = test::StoreTest;
using StoredPlaces = test::StoreTest;

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
    PastTrips::addLastTrip({{"route", platform::Dictionary{{"name", "\xff"}}}}, context);
  });
  EXPECT_EQ(logged("PastTrips:addLastTrip Unresolved error Error Domain="), 1U);
  EXPECT_EQ(logged("PastTrips:addLastTrip:Failed to load GEOJSON: "), 1U);
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

}  // namespace
}  // namespace tarvo
