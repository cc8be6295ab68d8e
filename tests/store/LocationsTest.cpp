#include "store/Locations.h"

#include <fstream>
#include <numeric>
#include <tuple>

#include <tarvo/LocationsHistory.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/SystemLog.h>

#include "persistence/TestStore.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "settings/Settings.h"
#include "store/Attributes.h"
#include "store/PastTrips.h"
#include "store/StoreFixture.h"
#include "store/Users.h"
#include "support/DiaryEngine.h"

namespace tarvo {
namespace {

namespace at = attribute::locations;
using test::logged;
using Context = platform::NSManagedObjectContext;
using platform::Date;
using platform::Seconds;

class StoredPositions : public test::StoreTest {
 protected:
  static void expectNoPosition(Context& context) {
    EXPECT_EQ(Locations::getLastLocation(context), nullptr);
    for (const auto& positions : {Locations::getAllLocations(context), Locations::getUnsentLocations(context),
                                  Locations::getSentWithoutACKLocations(context)})
      EXPECT_TRUE(positions.empty());
  }
  static std::vector<std::int64_t> range(std::int64_t from, std::int64_t count) {
    std::vector<std::int64_t> all(static_cast<std::size_t>(count));
    std::iota(all.begin(), all.end(), from);
    return all;
  }
};
using UploadBody = StoredPositions;
using Acknowledgement = StoredPositions;

TEST_F(StoredPositions, AreNumberedByTheRecordsBesidesThemWhateverIsSaved) {
  within([&](Context& context) {
    expectNoPosition(context);
    for (std::int64_t i = 0; i < 3; ++i) EXPECT_EQ(add(context)->index(), i);
    ASSERT_FALSE(context.save());
    {
      test::FullDisk full;
      EXPECT_EQ(add(context)->index(), 3);
      ASSERT_TRUE(context.save());
    }
    EXPECT_EQ(add(context)->index(), 4);
    ASSERT_FALSE(context.save());
    EXPECT_EQ(indexes(Locations::getAllLocations(context)), (std::vector<std::int64_t>{4, 3, 2, 1, 0}));
    Locations::removeData(context);
    EXPECT_EQ(add(context)->index(), 0);
  });
  EXPECT_EQ(logged("Locations:getSentWithoutACKLocations [loc] from:nil to:nil count : 0 mainThread:true"), 1U);
}

TEST_F(StoredPositions, KeepTheWholeFixAndItsCircumstances) {
  platform::UIDevice::current().setIdentifierForVendor("3F2504E0-4F89-41D3-9A0C-0305E82C3301");
  within([&](Context& context) {
    platform::CLLocation fix{{-33.5, 151.25}, 12.5, 5, 8, 90, -1, Date(Seconds(1488442529.5)), 0};
    const LocationRecord kept = Locations::addLocation(fix, "still", "sls", context, "app_paused")->record();
    EXPECT_EQ(std::tie(kept.latitude, kept.longitude, kept.altitude, kept.horizontalAccuracy, kept.verticalAccuracy,
                       kept.course, kept.speed, kept.floor),
              std::tuple(-33.5, 151.25, 12.5, 5.0, 8.0, 90.0, -1.0, 0));
    EXPECT_EQ(std::tie(kept.userAction, kept.localisationMethod, kept.serviceAction, kept.appAction, kept.appName,
                       kept.identifierForVendor),
              std::tuple("still", "sls", "app_paused", "unused", "ios:", "3F2504E0-4F89-41D3-9A0C-0305E82C3301"));
    EXPECT_EQ(std::tie(kept.locationTimestamp, kept.eventTimestamp, kept.unsent, kept.sentWithoutACK),
              std::tuple(fix.timestamp, clock->now(), true, false));
    EXPECT_EQ(add(context)->record().floor, std::nullopt);
  });
  EXPECT_EQ(logged("Locations:addLocation [loc] id:0 lon:151.25 lat:-33.5 tLoc:2017-03-02 08:15:29 +0000 "
                   "tMob:2017-03-02 08:15:30 +0000 event:app_paused mainThread:true"),
            1U);
}

TEST_F(StoredPositions, LeaveTheStoreForUploadInBatchesOfThousandByIndex) {
  within([&](Context& context) {
    addAndSave(context, 1500);
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)), range(0, 1000));
    auto newest = indexes(Locations::getAllLocations(context));
    std::reverse(newest.begin(), newest.end());
    EXPECT_EQ(newest, range(500, 1000));

    const auto oldest = Locations::getUnsentLocations(context);
    for (std::size_t i = 0; i < 10; ++i) Locations::markLocationAsSentWithoutACKWithID(oldest[i]->objectID(), context);
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)), range(10, 1000));
    EXPECT_EQ(indexes(Locations::getSentWithoutACKLocations(context)), range(0, 10));

    // What only memory holds is no part of a batch, and the limit comes after; marks that only memory holds count.
    const auto unsaved = add(context);
    for (std::size_t i = 10; i < 1000; ++i)
      Locations::markLocationAsSentWithoutACKWithID(oldest[i]->objectID(), context);
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)), range(1000, 500));
    unsaved->setBoolean(at::sentWithoutACK, true);
    unsaved->setInteger(at::index, -1);
    EXPECT_EQ(indexes(Locations::getSentWithoutACKLocations(context)), range(0, 1000));
  });
  EXPECT_EQ(logged("Locations:getUnsentLocations [loc] from:10 to:1009 mainThread:"), 1U);
  EXPECT_EQ(logged("Locations:getSentWithoutACKLocations [loc] from:0 to:9 count : 10 mainThread:"), 1U);
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

TEST_F(StoredPositions, OfAHistoryThatCannotBeReadAreNone) {
  LocationsHistory history;
  within([&](Context& context) {
    addAndSave(context, 2);
    history.locations = Locations::getLocationHistory(context, platform::distantPast(), platform::distantFuture());
    platform::runSql(file, "ALTER TABLE Locations RENAME TO Hidden");
    EXPECT_TRUE(history.locations.toVector().empty());
    EXPECT_TRUE(history.toArray().empty());
    EXPECT_EQ(history.getBoundingBox(), std::nullopt);
    EXPECT_EQ(history.toGeoJSON("LineString"), std::nullopt);
    EXPECT_EQ(logged("Locations:getLocationHistory Unresolved error "), 4U);
    platform::runSql(file, "ALTER TABLE Hidden RENAME TO Locations");
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

TEST_F(StoredPositions, OfAStoreThatDidNotOpenAreNoneAndEachFailureIsLogged) {
  std::ofstream(file) << std::string(4096, 'x');
  within([&](Context& context) {
    EXPECT_EQ(add(context), nullptr);
    EXPECT_TRUE(context.hasChanges());
    EXPECT_EQ(Locations::counts(context).unsaved, 1);
    EXPECT_EQ(logged("Unresolved error Error Domain=YOUR_ERROR_DOMAIN Code=9999 "), 1U);
    expectNoPosition(context);
    EXPECT_TRUE(Locations::getLocationHistory(context, clock->now(), clock->now()).empty());
    Locations::markLocationAsSentUntilIndex("1", context, "0");
    PastTrips::removeData(context);
    EXPECT_EQ(Users::getUserUUID(context), std::nullopt);
  });
  for (const char* opening : {" Locations:addLocation Unresolved error ", "LastTrips removeData Unresolved error ",
                              "Locations:getLocationHistory Unresolved error ", "Users:getUsers [loc] error:"})
    EXPECT_EQ(logged(opening), 1U) << opening;
}

}  // namespace
}  // namespace tarvo
