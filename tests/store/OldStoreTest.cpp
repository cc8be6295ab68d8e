#include "persistence/TestStore.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/StoreFixture.h"
#include "store/Users.h"

namespace tarvo {
namespace {

using platform::fileText;
using platform::runSql;

constexpr const char* kSchema =
    "SELECT group_concat(name || sql, char(10)) FROM (SELECT name, sql FROM sqlite_schema ORDER BY name)";

class OldStore : public test::StoreTest {
 protected:
  OldStore() {
    const auto text = std::filesystem::path(__FILE__).parent_path() / "first-version.sql";
    runSql(file, fileText(text).c_str());
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
  const std::string before = fileText(file);
  within([&](auto& context) {
    const std::string all = told(context);
    EXPECT_NE(all.find("{index:0 lon:11.575 lat:48.137 acc:5 speed:1.5 course:90.25 alt:519.5"), all.npos) << all;
    EXPECT_NE(all.find("2 unsent, 2 awaiting"), all.npos) << all;
    EXPECT_TRUE(fileText(file) == before);
    EXPECT_FALSE(context.claim());
    EXPECT_EQ(told(context), all);
    addAndSave(context, 2);
    EXPECT_EQ(indexes(Locations::getAllLocations(context)), (std::vector<std::int64_t>{7, 6, 5, 4, 3, 2, 1, 0}));
    EXPECT_EQ(indexes(Locations::getUnsentLocations(context)), (std::vector<std::int64_t>{4, 5, 6, 7}));
    EXPECT_EQ(Locations::getLocationHistory(context, platform::distantPast(), platform::distantFuture()).size(), 8U);
  });
  EXPECT_EQ(runSql(file, kSchema), runSql(other.path() / "new.sqlite", kSchema));
  EXPECT_EQ(runSql(file, "SELECT group_concat(name) FROM _metadata"), "entities,modelHash,modelVersion,uuid");
  EXPECT_EQ(runSql(file, "PRAGMA integrity_check"), "ok");
  EXPECT_EQ(runSql(file, "PRAGMA page_size"), "4096");
  EXPECT_EQ(runSql(other.path() / "new.sqlite", "PRAGMA page_size"), "1024");
}

}  // namespace
}  // namespace tarvo
