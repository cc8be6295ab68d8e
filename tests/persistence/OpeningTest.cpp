#include <sys/stat.h>

#include "persistence/TestStore.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

std::shared_ptr<NSManagedObjectModel> modelOf(const std::string& text) {
  return NSManagedObjectModel::load({"test", text});
}

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

TEST(ObjectModel, RefusesWhatIsNotAModel) {
  const std::string good = R"({"entities":[{"name":"A","attributes":[{"name":"x","type":"date"}],
      "indexes":[{"name":"A_x","attributes":["x"]}]}],"configurations":{"C":["A"]}})";
  ASSERT_TRUE(modelOf(good));
  const std::pair<const char*, const char*> faults[] = {
      {"{\"entities\"", "{\"other\""}, {"\"A\"", "\"_A\""},    {"\"A\"", "\"A\\\"; --\""},   {"\"date\"", "\"blob\""},
      {"[\"x\"]", "[\"y\"]"},          {"[\"A\"]", "[\"B\"]"}, {"\"C\":[\"A\"]", "\"C\":1"}, {"}]}]", "}]}"},
  };
  for (const auto& [from, to] : faults) {
    std::string text = good;
    text.replace(text.find(from), std::string_view(from).size(), to);
    EXPECT_FALSE(modelOf(text)) << text;
  }
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
        ASSERT_FALSE(store.context->save());
        const auto found = store.fetch().at(0)->objectID().description();
        if (round == 0) id = found;
        EXPECT_EQ(found, id);
      });
      for (const char* side : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(::stat((file.string() + side).c_str(), &status), 0) << side;
        EXPECT_EQ(status.st_mode & 0777U, 0600U) << side;
      }
    }
  }
}

TEST(ObjectStoreFile, IsRefusedAndLeftUntouchedWhenItIsNotAStoreOfTheModel) {
  test::TempDir dir;
  const auto good = dir.path() / "good.sqlite";
  { TestStore store(good); }
  const struct {
    const char* name;
    std::function<void(const std::filesystem::path&)> make;
    std::int64_t code;
  } cases[] = {
      {"garbage", [](const auto& file) { std::ofstream(file) << std::string(5000, 'x'); }, 259},
      {"one byte", [](const auto& file) { std::ofstream(file) << "S"; }, 259},
      {"cut header", [&](const auto& file) { std::ofstream(file) << fileText(good).substr(0, 60); }, 259},
      {"foreign", [](const auto& file) { runSql(file, "CREATE TABLE Locations (a)"); }, 134020},
      {"foreign without tables", [](const auto& file) { runSql(file, "PRAGMA application_id = 7; VACUUM"); }, 134020},
      {"other model",
       [&](const auto& file) {
         std::filesystem::copy(good, file);
         runSql(file, "PRAGMA journal_mode=DELETE; UPDATE _metadata SET value = 'x' WHERE name = 'modelHash'");
       },
       134100},
      {"lost index",
       [&](const auto& file) {
         std::filesystem::copy(good, file);
         runSql(file, "PRAGMA journal_mode=DELETE; DROP INDEX Locations_unsent");
       },
       134020},
      {"garbage behind the header",
       [&](const auto& file) {
         const std::string text = fileText(good);
         std::ofstream(file) << text.substr(0, 100) << std::string(text.size() - 100, 'x');
       },
       134080},
  };
  for (const auto& [name, make, code] : cases) {
    const auto file = dir.path() / name;
    make(file);
    const std::string before = fileText(file);
    TestStore store(file);
    ASSERT_TRUE(store.failure) << name;
    EXPECT_EQ(store.failure->domain, NSCocoaErrorDomain);
    EXPECT_EQ(store.failure->code, code) << name << ": " << store.failure->description();
    EXPECT_EQ(findString(store.failure->userInfo, "NSFilePath"), file.string());
    EXPECT_FALSE(store.coordinator->hasStore());
    EXPECT_TRUE(fileText(file) == before) << name;
  }
}

TEST(ObjectStoreFile, GivesAnErrorWhereNoFileCanBeMade) {
  test::TempDir dir;
  std::filesystem::create_directory(dir.path() / "folder");
  std::ofstream(dir.path() / "file").flush();
  for (const auto& path : {dir.path() / "folder", dir.path() / "missing" / "x.sqlite", dir.path() / "file" / "x.sqlite",
                           std::filesystem::path("/proc/x.sqlite"), std::filesystem::path("/dev/null")}) {
    TestStore store(path);
    ASSERT_TRUE(store.failure) << path;
    EXPECT_EQ(store.failure->code, 134080) << path;
  }
}

TEST(ObjectStoreFile, IsAddedOnceUnderAKnownTypeAndConfiguration) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  const char* configuration = "ConfigurationForLocationsAndUsers";
  EXPECT_TRUE(store.coordinator->addPersistentStore(NSSQLiteStoreType, configuration, dir.path() / "b.sqlite"));
  NSPersistentStoreCoordinator other(shippedModel());
  EXPECT_EQ(other.addPersistentStore("XML", configuration, dir.path() / "b.sqlite")->code, 134000);
  EXPECT_TRUE(other.addPersistentStore(NSSQLiteStoreType, "Other", dir.path() / "b.sqlite"));
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "b.sqlite"));
}

TEST(ObjectStoreFile, HoldsEverythingAfterACheckpoint) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  store.run([&] {
    store.add(0);
    ASSERT_FALSE(store.context->save());
    ASSERT_GT(std::filesystem::file_size(dir.path() / "a.sqlite-wal"), 0U);
    EXPECT_FALSE(store.coordinator->checkpoint());
  });
  EXPECT_EQ(std::filesystem::file_size(dir.path() / "a.sqlite-wal"), 0U);
  std::filesystem::copy(store.file, dir.path() / "copy.sqlite");
  TestStore copy(dir.path() / "copy.sqlite");
  copy.run([&] { EXPECT_EQ(copy.count(), 1U); });
}

}  // namespace
}  // namespace tarvo::platform
