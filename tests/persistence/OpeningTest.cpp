#include "persistence/TestStore.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

TEST(ObjectModel, DescribesTheFourEntitiesInTheOrderOfTheirAttributes) {
  const auto model = shippedModel();
  ASSERT_TRUE(model);
  const auto members = model->configuration("ConfigurationForLocationsAndUsers");
  ASSERT_TRUE(members);
  std::string shape;
  for (const auto* entity : *members) {
    shape += entity->name + ":";
    for (const auto& attribute : entity->attributes)
      shape += " " + attribute.name + "/" + "sidbt"[static_cast<std::size_t>(attribute.type)];
    shape += "\n";
  }
  EXPECT_EQ(shape,
            "Locations: altitude/d appAction/s appName/s course/d floor/i horizontalAccuracy/d latitude/d longitude/d "
            "serviceAction/s speed/d locationTimestamp/t eventTimestamp/t userAction/s identifierForVendor/s "
            "verticalAccuracy/d sentWithoutACK/b unsent/b index/i localisationMethod/s\n"
            "PastTrips: pasttrip_id/i departure_lat/d departure_lon/d arrival_lat/d arrival_lon/d start_time/t "
            "arrival_time/t route/s\n"
            "PointOfInterest: poi_id/i latitude/d longitude/d point_geo_json/s zone_geo_json/s\n"
            "Users: uuid/s timestamp/s\n");
  EXPECT_FALSE(model->configuration("Other"));
}

TEST(ObjectStoreFile, IsCreatedForItsOwnerAloneAndFoundAgain) {
  test::TempDir dir;
  for (const bool emptyBefore : {false, true}) {
    const auto file = dir.path() / (emptyBefore ? "empty.sqlite" : "absent.sqlite");
    if (emptyBefore) std::ofstream(file).flush();
    std::string id;
    for (int round = 0; round < 2; ++round) {
      TestStore store(file);
      ASSERT_FALSE(store.failure) << store.failure->description();
      store.run([&] {
        if (round == 0) store.add(0);
        store.save();
        const auto found = store.fetch().at(0)->objectID().description();
        if (round == 0) id = found;
        EXPECT_EQ(found, id);
      });
      for (const char* side : {"", "-wal", "-shm"})
        EXPECT_EQ(fs::status(file.string() + side).permissions(), fs::perms::owner_read | fs::perms::owner_write)
            << side;
    }
  }
}

TEST(ObjectStoreFile, IsRefusedAndLeftUntouchedWhenItIsNotAStoreOfTheModel) {
  test::TempDir dir;
  const auto good = dir.path() / "good.sqlite";
  { TestStore store(good); }
  const std::string text = fileText(good);
  const auto holds = [](std::string bytes) { return [=](const fs::path& file) { std::ofstream(file) << bytes; }; };
  const auto runs = [](const char* sql) { return [=](const fs::path& file) { runSql(file, sql); }; };
  const auto differs = [&](std::string sql) {
    return [&good, sql = "PRAGMA journal_mode=DELETE; " + sql](const fs::path& file) {
      fs::copy(good, file);
      runSql(file, sql.c_str());
    };
  };
  const std::tuple<const char*, std::function<void(const fs::path&)>, std::int64_t> cases[] = {
      {"garbage", holds(std::string(5000, 'x')), 259},
      {"one byte", holds("S"), 259},
      {"cut header", holds(text.substr(0, 60)), 259},
      {"foreign", runs("CREATE TABLE Locations (a)"), 134020},
      {"foreign without tables", runs("PRAGMA application_id = 7; VACUUM"), 134020},
      {"other model", differs("UPDATE _metadata SET value = 'x' WHERE name = 'modelHash'"), 134100},
      {"lost index", differs("DROP INDEX Locations_unsent"), 134020},
      {"garbage behind the header", holds(text.substr(0, 100) + std::string(text.size() - 100, 'x')), 134080},
  };
  for (const auto& [name, make, code] : cases) {
    SCOPED_TRACE(name);
    const auto file = dir.path() / name;
    make(file);
    const std::string before = fileText(file);
    TestStore store(file);
    ASSERT_TRUE(store.failure);
    EXPECT_EQ(store.failure->domain, NSCocoaErrorDomain);
    EXPECT_EQ(store.failure->code, code) << store.failure->description();
    EXPECT_EQ(findString(store.failure->userInfo, "NSFilePath"), file.string());
    EXPECT_FALSE(store.coordinator->hasStore());
    EXPECT_TRUE(fileText(file) == before);
  }
}

TEST(ObjectStoreFile, ThatCannotBeMadeGivesAnErrorAndKeepsChangesPending) {
  test::TempDir dir;
  fs::create_directory(dir.path() / "folder");
  std::ofstream(dir.path() / "file").flush();
  for (const fs::path name : {"folder", "missing/x.sqlite", "file/x.sqlite", "/proc/x.sqlite", "/dev/null"}) {
    SCOPED_TRACE(name);
    TestStore store(dir.path() / name);
    ASSERT_TRUE(store.failure);
    EXPECT_EQ(store.failure->code, 134080);
    EXPECT_FALSE(store.coordinator->checkpoint());
    store.run([&] {
      store.save();
      EXPECT_FALSE(store.context->fetch({"Locations"}));
      EXPECT_FALSE(store.context->count({"Locations"}));
      store.add(0);
      EXPECT_EQ(store.context->save()->domain, NSCocoaErrorDomain);
      EXPECT_TRUE(store.context->hasChanges());
    });
  }
}

TEST(ObjectStoreFile, HoldsEverythingAfterACheckpoint) {
  TestStore store;
  const fs::path log = store.file.string() + "-wal", copied = store.file.string() + "-copy";
  store.run([&] {
    store.add(0);
    store.save();
    ASSERT_GT(fs::file_size(log), 0U);
    EXPECT_FALSE(store.coordinator->checkpoint());
  });
  EXPECT_EQ(fs::file_size(log), 0U);
  fs::copy(store.file, copied);
  TestStore copy(copied);
  copy.run([&] { EXPECT_EQ(copy.count(), 1U); });
}

}  // namespace
}  // namespace tarvo::platform
