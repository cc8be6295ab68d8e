#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "persistence/TestStore.h"
#include "platform/persistence/InternedText.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

TEST(Context, RunsBlocksInTheOrderInWhichTheyWereGiven) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  std::string diary;  // written only inside blocks
  for (char c = 'a'; c < 'k'; ++c) store.context->perform([&diary, c] { diary += c; });
  store.run([&] {
    EXPECT_EQ(diary, "abcdefghij");
    store.context->perform([&] { diary += "3"; });
    diary += "1";
    store.run([&] { diary += "2"; });
    EXPECT_EQ(diary, "abcdefghij12");
  });
  std::thread::id runner;
  store.run([&] { runner = std::this_thread::get_id(); });
  EXPECT_EQ(runner, std::this_thread::get_id());
  store.run([&] { EXPECT_EQ(diary, "abcdefghij123"); });
}

TEST(Context, SavesWhatManyThreadsAdd) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        std::shared_ptr<NSManagedObject> object;
        store.run([&] {
          object = store.add(static_cast<std::int64_t>(store.count()));
          object->setString(store.at("appName"), "app" + std::to_string(t));
          EXPECT_FALSE(store.context->save());
        });
        store.context->perform([&store, i] {
          store.add(-1 - i)->setString(store.at("appName"), "other");
          EXPECT_FALSE(store.context->save());
        });
      }
    });
  for (auto& thread : threads) thread.join();
  store.run([&] { EXPECT_EQ(store.count(), 200U); });
}

TEST(Context, EndsTheProcessWhenItIsUsedOutsideItsBlocks) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  std::shared_ptr<NSManagedObject> object;
  store.run([&] { object = store.add(0); });
  EXPECT_DEATH(store.context->fetch({"Locations"}), "outside");
  EXPECT_DEATH(store.context->insertNewObject("Locations"), "outside");
  EXPECT_DEATH(store.context->save(), "outside");
  EXPECT_DEATH(object->setInteger(store.at("index"), 1), "outside");
  store.run([&] { EXPECT_DEATH(object->number(store.at("index")), "not of the type"); });
}

TEST(Context, CountsRowsPlusInsertsMinusDeletes) {
  test::TempDir dir;
  for (const int alreadyThere : {0, 3}) {
    TestStore opened(dir.path() / "a.sqlite");
    opened.run([&] {
      const auto base = static_cast<std::size_t>(alreadyThere);
      EXPECT_EQ(opened.count(), base);
      auto first = opened.add(0);
      auto second = opened.add(1);
      EXPECT_EQ(opened.count(), base + 2);
      opened.context->deleteObject(first);
      opened.context->deleteObject(first);
      EXPECT_EQ(opened.count(), base + 1);
      EXPECT_FALSE(opened.context->save());
      opened.context->deleteObject(second);
      EXPECT_EQ(opened.count(), base);
      EXPECT_FALSE(opened.context->save());
      EXPECT_EQ(opened.count(), base);
      for (int i = 0; i < 3; ++i) opened.add(i);
      EXPECT_FALSE(opened.context->save());
      EXPECT_EQ(opened.count({"Locations", {}, {}, 2}), std::min<std::size_t>(2, base + 3));
      for (const auto& object : opened.fetch()) opened.context->deleteObject(object);
      EXPECT_EQ(opened.count(), 0U);
      for (int i = 0; i < 3; ++i) opened.add(i);
      EXPECT_EQ(opened.count(), 3U);
      EXPECT_FALSE(opened.context->save());
    });
  }
}

TEST(Context, CountsALargeTableFromWhatWasKeptUntilARowIsDeleted) {
  test::TempDir dir;
  const auto file = dir.path() / "a.sqlite";
  const auto countAfterOpening = [&] {
    TestStore store(file);
    std::size_t rows = 0;
    store.run([&] {
      EXPECT_FALSE(store.context->claim()) << "only who writes keeps it";
      rows = store.count();
    });
    return rows;
  };
  EXPECT_EQ(countAfterOpening(), 0U);
  auto other = Database::open(file);
  const auto runElsewhere = [&](std::string_view sql) {
    EXPECT_FALSE((*other)->run(sql, StoreErrorCode::operation)) << sql;
  };
  runElsewhere(
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
      "INSERT INTO Locations (_key) SELECT i FROM n");
  EXPECT_EQ(countAfterOpening(), 20000U);
  runElsewhere("INSERT INTO Locations (\"index\") VALUES (1)");
  EXPECT_EQ(countAfterOpening(), 20001U);
  runElsewhere("UPDATE _metadata SET value = '7 20000' WHERE name = 'Locations.rows'");
  EXPECT_EQ(countAfterOpening(), 8U) << "what was kept is believed";
  runElsewhere("DELETE FROM Locations WHERE _key = 5");
  EXPECT_EQ(countAfterOpening(), 20000U);
}

TEST(Context, HandsOutOneObjectForARowWhileItIsUsedOrChanged) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  const NSFetchRequest all{"Locations", {}, {{"index", true}}};
  store.run([&] {
    store.add(5);
    ASSERT_FALSE(store.context->save());
    const auto held = store.fetch(all).at(0);
    EXPECT_EQ(store.fetch(all).at(0), held);
    EXPECT_EQ(store.context->existingObject(held->objectID()).value(), held);
    held->setInteger(store.at("index"), 5);
    EXPECT_FALSE(store.context->hasChanges());
  });
  store.run([&] {
    store.fetch(all).at(0)->setInteger(store.at("index"), 6);
    EXPECT_TRUE(store.context->hasChanges());
    EXPECT_EQ(store.indexes(all), "6 ");
    ASSERT_FALSE(store.context->save());
    EXPECT_EQ(store.indexes(all), "6 ");
    // Many objects come and go; those in use are still found as themselves.
    const auto held = store.fetch(all).at(0);
    for (int i = 0; i < 3000; ++i) store.add(100 + i);
    ASSERT_FALSE(store.context->save());
    for (int round = 0; round < 3; ++round) EXPECT_EQ(store.fetch(all).at(0), held);
    EXPECT_EQ(store.count(), 3001U);
  });
}

TEST(Context, NamesObjectsTemporarilyUntilTheyAreSaved) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  store.run([&] {
    auto object = store.add(0);
    const NSManagedObjectID early = object->objectID();
    EXPECT_EQ(early.description(), "<x-coredata:///Locations/t1>");
    EXPECT_EQ(store.context->existingObject(early).value(), object);
    ASSERT_FALSE(store.context->save());
    const NSManagedObjectID late = object->objectID();
    EXPECT_EQ(late.description().substr(0, 15), "<x-coredata://" + late.storeUUID->substr(0, 1));
    EXPECT_EQ(late.description().substr(late.description().rfind('/')), "/p1>");
    object.reset();
    for (const auto& id : {early, late})
      EXPECT_EQ(store.context->existingObject(id).value()->integer(store.at("index")), 0);
    store.context->deleteObject(store.context->existingObject(early).value());
    for (const bool saved : {false, true}) {
      for (const auto& id : {early, late, NSManagedObjectID{}})
        EXPECT_EQ(store.context->existingObject(id).error().code, 133000) << saved;
      ASSERT_FALSE(store.context->save());
    }
  });
}

TEST(Context, KeepsEachValueAsItWasGiven) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  const std::string text("a\0\"'é", 6);
  store.run([&] {
    auto object = store.add(INT64_MIN);
    object->setInteger(store.at("floor"), 0);
    object->setNumber(store.at("speed"), std::numeric_limits<double>::quiet_NaN());
    object->setNumber(store.at("course"), -0.0);
    object->setNumber(store.at("latitude"), 48.1234567890123456);
    object->setString(store.at("appName"), text);
    object->setString(store.at("userAction"), std::string_view());
    ASSERT_FALSE(store.context->save());
  });
  TestStore again(store.file);
  again.run([&] {
    const auto object = again.fetch().at(0);
    EXPECT_EQ(object->integer(again.at("index")), INT64_MIN);
    EXPECT_EQ(object->integer(again.at("floor")), 0);
    EXPECT_EQ(object->number(again.at("speed")), std::nullopt);
    EXPECT_FALSE(std::signbit(object->number(again.at("course")).value()));
    EXPECT_EQ(object->number(again.at("latitude")), 48.1234567890123456);
    EXPECT_EQ(object->string(again.at("appName")), text);
    EXPECT_EQ(object->string(again.at("userAction")), "");
    EXPECT_EQ(object->string(again.at("appAction")), std::nullopt);
    EXPECT_EQ(object->date(again.at("eventTimestamp")), std::nullopt);
  });
}

TEST(Context, KeepsRepeatedTextsOnceAndFreesThem) {
  test::TempDir dir;
  TestStore store(dir.path() / "a.sqlite");
  const std::size_t before = InternedText::poolSize();
  std::vector<std::shared_ptr<NSManagedObject>> objects;
  store.run([&] {
    for (int i = 0; i < 100; ++i) {
      objects.push_back(store.add(i));
      objects.back()->setString(store.at("appName"), "ios:host");
      objects.back()->setString(store.at("userAction"), i % 2 == 0 ? "walking" : "driving");
    }
    ASSERT_FALSE(store.context->save());
    objects = store.fetch();
  });
  EXPECT_EQ(InternedText::poolSize(), before + 3);
  std::vector half(objects.begin() + 50, objects.end());
  objects.resize(50);
  std::thread other([&] { half.clear(); });
  objects.clear();
  other.join();
  EXPECT_LE(InternedText::poolSize(), before + 2) << "the context keeps the latest text of each attribute";
  store.context.reset();
  EXPECT_EQ(InternedText::poolSize(), before);
}

}  // namespace
}  // namespace tarvo::platform
