#include "store/Locations.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <numeric>
#include <tuple>

#include <tarvo/LocationsHistory.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/SystemLog.h>

#include "log/Log.h"
#include "persistence/TestStore.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "settings/Settings.h"
#include "store/Attributes.h"
#include "store/Ledger.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/Retention.h"
#include "store/StoreFixture.h"
#include "store/Users.h"
#include "support/DiaryEngine.h"

namespace tarvo {
namespace {

namespace at = attribute::locations;
using test::logged;
using Context = platform::NSManagedObjectContext;
using platform::Date;
using platform::dateSince1970;
using platform::Seconds;

class StoredPositions : public test::StoreTest {
 protected:
  static std::vector<std::int64_t> range(std::int64_t from, std::int64_t count) {
    std::vector<std::int64_t> all(static_cast<std::size_t>(count));
    std::iota(all.begin(), all.end(), from);
    return all;
  }
};
using UploadBody = StoredPositions;
using Acknowledgement = StoredPositions;

TEST_F(StoredPositions, LoseWhatIsAcknowledgedAndOldAndNumbersGoOnBehindTheHighestEverGiven) {
  const auto log = file.parent_path() / "TarvoLog_2016-01-01_U-1_IOS.txt";
  std::ofstream(log) << "nothing is logged any more";
  Ledger ledger;
  Retention retention(store, ledger);
  store.setAfterSave([&] { retention.didSave(); });
  within([&](Context& context) {
    const auto collect = [&](int count, int acknowledged) {
      for (int i = 0; i < count; ++i)
        if (const auto position = add(context); i < acknowledged) position->setBoolean(at::unsent, false);
      store.saveContext();
    };
    collect(1500, 1200);
    clock->advance(Seconds(3600));
    collect(100, 100);
    ledger.didAcknowledge({10, 19}, /*answered=*/false, clock->now());
    Settings::shared().storageLimits.set({.positionAge = Seconds(1800), .logAge = Seconds(86400)});
    const auto held = Locations::getAllLocations(context).back();  // 600, in use
    for (const std::int64_t stored : {601, 413, 414}) {
      collect(1, 0);
      EXPECT_EQ(Locations::counts(context).stored, stored);
    }
    EXPECT_EQ(std::tuple(ledger.positions().removed, ledger.positions().removedUpTo), std::tuple(1189, 1199));
    EXPECT_EQ(held->record().index, 600);
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)).front(), 1200);
    EXPECT_EQ(Locations::counts(context).lastIndex, 1602);
  });
  EXPECT_EQ(test::ask(file, "SELECT value FROM _metadata WHERE name = 'Locations.keys'"), "1602 1189 1189");
  Log::serialQueue().sync([] {});
  EXPECT_FALSE(std::filesystem::exists(log));
}

TEST_F(StoredPositions, ThatGoAreOverwrittenInTheFile) {
  Ledger ledger;
  Retention retention(store, ledger);
  store.setAfterSave([&] { retention.didSave(); });
  const double latitude = 12.3456789;
  std::string bytes(sizeof latitude, '\0');  // the first one last
  std::memcpy(bytes.data(), &latitude, sizeof latitude);
  std::reverse(bytes.begin(), bytes.end());
  within([&](Context& context) {
    const auto isInFile = [&] {
      EXPECT_FALSE(context.coordinator().checkpoint());
      return platform::readFile(file)->find(bytes) != std::string::npos;
    };
    add(context, latitude)->setBoolean(at::unsent, false);
    add(context);
    store.saveContext();
    EXPECT_TRUE(isInFile());
    Settings::shared().storageLimits.set({.positionAge = Seconds(0)});
    clock->advance(Seconds(1));
    add(context);
    store.saveContext();
    EXPECT_EQ(ledger.positions().removed, 1);
    EXPECT_FALSE(isInFile());
  });
}

TEST_F(StoredPositions, OfABoundedStoreTakeTheRoomOfTheOldestOnesAlsoInLaterProcesses) {
  Settings::shared().storageLimits.set({.storeBytes = 400'000});
  Ledger ledger;
  for (std::int64_t process = 0; process < 3; ++process) {
    ObjectStore own;
    Retention retention(own, ledger);
    own.setAfterSave([&] { retention.didSave(); });
    auto& context = own.managedObjectContext();
    context.performAndWait([&] {
      for (std::int64_t i = 0; i < 2000; ++i) {
        const auto position = add(context, 48.5, std::string(i % 7, 'x'));
        ASSERT_EQ(position->index(), 2000 * process + i);
        position->setBoolean(at::unsent, i == 1000);  // one in the midst of each process waits
        clock->advance(Seconds(4));                   // a look each 150 positions
        if (i % 10 == 9) own.saveContext();
      }
      EXPECT_LE(context.storeBytes().value(), 450'000U);
      EXPECT_EQ(Locations::counts(context).unsent, process + 1);
      EXPECT_EQ(Locations::counts(context).stored + ledger.positions().removed, 2000 * (process + 1));
    });
  }
  EXPECT_EQ(test::ask(file, "SELECT count(*) FROM Locations WHERE \"index\" <> _key - 1"), "0");
  EXPECT_LT(std::filesystem::file_size(file), 1'100'000U);
}

TEST_F(StoredPositions, KeepTheCircumstancesOfTheFix) {
  platform::UIDevice::current().setIdentifierForVendor("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  within([&](Context& context) {
    platform::CLLocation fix{{-33.5, 151.25}, 12.5, 5, 8, 90, -1, Date(Seconds(1488442529.5)), 0};
    const LocationRecord kept = Locations::addLocation(fix, "still", "sls", context, "app_paused")->record();
    EXPECT_EQ(std::tie(kept.userAction, kept.localisationMethod, kept.serviceAction, kept.appAction, kept.appName,
                       kept.identifierForVendor),
              std::tuple("still", "sls", "app_paused", "unused", "ios:", "3F2504E0-4F89-41D3-9A0C-0305E82C3301"));
    EXPECT_EQ(std::tie(kept.locationTimestamp, kept.eventTimestamp, kept.unsent, kept.sentWithoutACK),
              std::tuple(fix.timestamp, clock->now(), true, false));
    EXPECT_EQ(add(context)->record().floor, std::nullopt);
  });
}

TEST_F(StoredPositions, LastIsTheNewestByFixTimeAndHistoryGoesByStorageTime) {
  const Date start = clock->now();
  within([&](Context& context) {
    platform::CLLocation fix;
    for (const double fixAge : {300.0, 5.0, 100.0, 200.0}) {
      fix.timestamp = start - Seconds(fixAge);
      Locations::addLocation(fix, "", "", context, "");
      clock->advance(Seconds(0.25));
    }
    EXPECT_EQ(Locations::getLastLocation(context)->index(), 1);
    const auto history = [&](double from, double to) {
      std::vector<std::int64_t> found;
      const auto records = Locations::getLocationHistory(context, start + Seconds(from), start + Seconds(to));
      for (const auto& record : records.toVector()) found.push_back(record.index.value());
      return found;
    };
    EXPECT_EQ(history(0.25, 0.5), range(1, 2));
    EXPECT_EQ(history(0.2501, 0.4999), range(0, 0));
    EXPECT_EQ(history(-1e9, 1e9), range(0, 4)) << "though nothing is saved yet";
    ASSERT_FALSE(context.save());
    EXPECT_EQ(history(0.25, 0.5), range(1, 2));

    Users::addUser("u", "t", context);  // no reason to copy the positions, which would be of this moment
    const auto all = Locations::getLocationHistory(context, platform::distantPast(), platform::distantFuture());
    Locations::addLocation(fix, "", "", context, "later");
    Locations::getLastLocation(context)->setBoolean(at::unsent, false);
    ASSERT_FALSE(context.save());
    EXPECT_EQ(all.size(), 4U);
    EXPECT_EQ(all.toVector().back().index, 3) << "what is stored later is not part of a history";
    EXPECT_EQ(all.toVector().at(1).unsent, false);
  });
}

TEST_F(StoredPositions, InPiecesAreTheSameAsInOne) {
  within([&](Context& context) {
    addAndSave(context, 12);
    // Numbers that are missing, repeat or belong to another row; the range of the second history is a small one.
    test::ask(file,
              "UPDATE Locations SET altitude = _key, eventTimestamp = _key, \"index\" = CASE _key WHEN 2 THEN NULL "
              "WHEN 5 THEN NULL WHEN 4 THEN 7 WHEN 10 THEN 7 WHEN 6 THEN 1 WHEN 12 THEN 3 ELSE \"index\" END");
    for (const double until : {12.0, 3.0}) {
      const auto records = Locations::getLocationHistory(context, dateSince1970(0), dateSince1970(until));
      std::vector<double> whole;
      for (const auto& record : records.toVector()) whole.push_back(record.altitude.value());
      EXPECT_EQ(whole.size(), until);
      for (const std::size_t count : {1U, 2U, 5U, 20U}) {
        LocationRecords::Place place;
        std::vector<double> pieces;
        for (auto piece = records.next(place, count); piece && !piece->empty(); piece = records.next(place, count))
          for (const auto& record : *piece) pieces.push_back(record.altitude.value());
        EXPECT_EQ(pieces, whole) << "in pieces of " << count;
      }
    }
    const auto records = Locations::getLocationHistory(context, dateSince1970(0), dateSince1970(12));
    LocationRecords::Place place;
    ASSERT_EQ(records.next(place, 7)->size(), 7U);
    test::ask(file, "DELETE FROM Locations WHERE altitude < 9");  // what has been read, and some of the rest
    ASSERT_EQ(records.next(place, 7)->size(), 3U);
    test::ask(file, "ALTER TABLE Locations RENAME TO Hidden");
    EXPECT_EQ(LocationRecords(records).next(place = {}, 7), std::nullopt);
  });
}

TEST_F(StoredPositions, OfAHistoryThatCannotBeReadAreNone) {
  LocationsHistory history;
  within([&](Context& context) {
    addAndSave(context, 2);
    history.locations = Locations::getLocationHistory(context, platform::distantPast(), platform::distantFuture());
    test::ask(file, "ALTER TABLE Locations RENAME TO Hidden");
    EXPECT_TRUE(history.locations.toVector().empty());
    EXPECT_TRUE(history.toArray().empty());
    EXPECT_EQ(history.getBoundingBox(), std::nullopt);
    EXPECT_EQ(history.toGeoJSON("LineString"), std::nullopt);
    EXPECT_EQ(logged("Locations:getLocationHistory Unresolved error "), 4U);
    test::ask(file, "ALTER TABLE Hidden RENAME TO Locations");
    EXPECT_EQ(history.toArray().size(), 2U);
  });
}

TEST_F(Acknowledgement, ClearsItsRangeFreesTheChannelAndStartsTheNextPassBeforeTheSave) {
  UploadChannel& channel = Settings::shared().uploadChannel;
  auto& engine = *new test::DiaryEngine;
  EngineLink::install(&engine);
  channel.setLocked(true);
  within([&](Context& context) {
    addAndSave(context, 12);
    // The flags do not matter, only the range: 9 was never posted.
    for (const auto& location : Locations::getUnsentLocations(context))
      if (location->index() != 9) location->setBoolean(at::sentWithoutACK, true);
    engine.duringPass = [&] {
      EXPECT_TRUE(context.isCurrent());
      EXPECT_FALSE(channel.locked());
      EXPECT_TRUE(context.hasChanges());
      EXPECT_EQ(indexes(Locations::getSentWithoutACKLocations(context)),
                (std::vector<std::int64_t>{0, 1, 2, 3, 4, 5, 6, 7, 11}));
      EXPECT_TRUE(Locations::getUnsentLocations(context).empty());
    };
    Locations::markLocationAsSentUntilIndex("10", context, "8");
    EXPECT_EQ(logged("engine: send"), 1U);

    channel.setLocked(true);
    Locations::markLocationAsSentUntilIndex("20", context, "12");
    EXPECT_EQ(logged("engine: send"), 1U);
    EXPECT_TRUE(channel.locked());
  });
}

TEST_F(UploadBody, HoldsFourteenTextsInAFixedOrder) {
  const std::string first =
      R"({"unique_position_id_for_app":"0","useruuid":"u-1","app_name":"ios:",)"
      R"("date_localisation":"2017-03-02 08:15:29 +0000","date_mobile":"2017-03-02 08:15:30 +0000","lon":"2.3522",)"
      R"("lat":"48.5","acc":"5","speed":"1.5","bearing":"90","alt":"35.25","provider":"sls",)"
      R"("service_action":"loc_changed","terramesh_data_version":"1"})";
  within([&](Context& context) {
    addAndSave(context, 3);
    auto all = Locations::getUnsentLocations(context);
    EXPECT_EQ(Locations::convertToString({all[0]}, "u-1"), "[" + first + "]");
    all[1]->setNumber(at::speed, std::nullopt);
    all[1]->setNumber(at::horizontalAccuracy, std::nullopt);
    all[1]->setNumber(at::latitude, 0.0000125);
    const std::string body = Locations::convertToString(all, "u-1");
    EXPECT_TRUE(body.starts_with("[" + first + ",{")) << body;
    EXPECT_NE(body.find(R"("lat":"0.0000125","acc":"","speed":"","bearing":"90")"), std::string::npos) << body;
    auto parsed = platform::parseJson(body);
    ASSERT_EQ(parsed->asArray()->size(), 3U);
    auto single = platform::parseJson(Locations::convertLocationsToJSON(*all[1], "u-1").value());
    EXPECT_EQ(platform::concat(*single), platform::concat(parsed->asArray()->at(1)));

    all[2]->setNumber(at::longitude, std::nullopt);
    EXPECT_DEATH((platform::setSystemLogSink({}), Locations::convertToString(all, "u-1")),
                 "a position to be sent has no longitude");
  });
}

platform::Dictionary json(std::string_view text) { return *platform::parseJson(text)->asDictionary(); }

Date onTheDay(int hourUTC, int minute = 0) {
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
}

TEST_F(StoredTrips, ReadWhatTheyCanOfAnOddAnswer) {
  within([&](Context& context) {
    const auto odd =
        R"({"pasttrip_id":"7","arrival_lat":"x","departure_lon":null,"start_time":"soon","arrival_time":3})";
    for (const char* answer : {odd, "{}"}) {
      const PastTripRecord trip = PastTrips::addLastTrip(json(answer), context)->record();
      EXPECT_EQ(std::tie(trip.arrival_lat, trip.departure_lon), std::tuple(0.0, 0.0));
      EXPECT_FALSE(trip.pasttrip_id || trip.start_time || trip.arrival_time || trip.route) << answer;
    }
    EXPECT_TRUE(PastTrips::lackIdentifiers(context)) << "those without one do not replace each other";
    EXPECT_EQ(context.count({.entity = "PastTrips"}).value(), 2U);
    PastTrips::addLastTrip({{"pasttrip_id", -3}, {"route", platform::Dictionary{{"name", "\xff"}}}}, context);
    EXPECT_FALSE(PastTrips::lackIdentifiers(context));
  });
  EXPECT_EQ(logged("PastTrips:addLastTrip Unresolved error Error Domain="), 2U);
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
    EXPECT_EQ(found(platform::distantPast(), platform::distantFuture()), "");
    for (const char* trip : {R"({"pasttrip_id":12,"start_time":"2017-03-02T07:30:00.000+0000"})",
                             R"({"pasttrip_id":1000,"start_time":"2017-03-02T07:00:00.000+0000"})",
                             R"({"pasttrip_id":999,"start_time":"2017-03-02T08:15:30.123+0100"})"})
      PastTrips::addLastTrip(json(trip), context);
    for (const bool saved : {false, true}) {
      ASSERT_FALSE(saved && context.save());
      EXPECT_EQ(PastTrips::getLastPastTrip(context)->pasttripID(), 1000);
      EXPECT_EQ(found(onTheDay(7), onTheDay(8)), "12 999 1000 ");
      EXPECT_EQ(found(onTheDay(7, 30), onTheDay(9)), "12 ");
      EXPECT_EQ(found(onTheDay(8), onTheDay(9)), "");
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
}

class OldStore : public test::StoreTest {
 protected:
  OldStore() {
    const auto text = std::filesystem::path(__FILE__).parent_path() / "first-version.sql";
    test::ask(file, test::bytesOf(text).c_str());
  }
};

/// What the store tells of all that it was made with.
std::string told(platform::NSManagedObjectContext& context) {
  std::string text;
  for (const auto& position : Locations::getAllLocations(context)) text += position->description() + "\n";
  text += platform::concat(Locations::getUnsentLocations(context).size(), " unsent, ",
                           Locations::getSentWithoutACKLocations(context).size(), " awaiting, ",
                           PastTrips::getLastPastTrip(context)->description(), " ",
                           *PastTrips::getLastPastTrip(context)->record().route, " ",
                           PointOfInterest::getPOIs(context).at(0)->description(), " ", *Users::getUserUUID(context));
  return text;
}

TEST_F(OldStore, IsReadAsItIsBroughtUpToDateByTheFirstChangeAndKeepsEverything) {
  test::TempDir other;
  { platform::TestStore made(other.path() / "new.sqlite"); }
  const std::string before = test::bytesOf(file);
  within([&](auto& context) {
    const std::string all = told(context);
    EXPECT_NE(all.find("{index:0 lon:11.575 lat:48.137 acc:5 speed:1.5 course:90.25 alt:519.5"), all.npos) << all;
    EXPECT_NE(all.find("2 unsent, 2 awaiting"), all.npos) << all;
    EXPECT_TRUE(test::bytesOf(file) == before);
    EXPECT_FALSE(context.claim());
    EXPECT_EQ(told(context), all);
    addAndSave(context, 2);
    EXPECT_EQ(indexes(Locations::getAllLocations(context)), (std::vector<std::int64_t>{7, 6, 5, 4, 3, 2, 1, 0}));
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)), (std::vector<std::int64_t>{4, 5, 6, 7}));
    EXPECT_EQ(Locations::getLocationHistory(context, platform::distantPast(), platform::distantFuture()).size(), 8U);
  });
  EXPECT_EQ(platform::schemaOf(file), platform::schemaOf(other.path() / "new.sqlite"));
}

}  // namespace
}  // namespace tarvo
