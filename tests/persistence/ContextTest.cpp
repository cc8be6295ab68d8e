#include <atomic>
#include <cmath>
#include <limits>
#include <thread>

#include "persistence/TestStore.h"
#include "platform/persistence/InternedText.h"

namespace tarvo::platform {
namespace {

TEST(Context, SavesWhatManyThreadsAdd) {
  TestStore store;
  const auto addAndSave = [&](const std::string& name) {
    store.add(static_cast<std::int64_t>(store.count()))->setString(store.at("appName"), name);
    store.save();
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        store.run([&] { addAndSave("app" + std::to_string(t)); });
        store.context->perform([&] { addAndSave("other"); });
      }
    });
  for (auto& thread : threads) thread.join();
  store.run([&] { EXPECT_EQ(store.count(), 200U); });
}

TEST(Context, EndsTheProcessWhenItIsUsedOutsideItsBlocks) {
  TestStore store;
  std::shared_ptr<NSManagedObject> object;
  store.run([&] { object = store.add(0); });
  EXPECT_DEATH(store.context->fetch({"Locations"}), "outside");
  EXPECT_DEATH(store.context->save(), "outside");
  EXPECT_DEATH(object->setInteger(store.at("index"), 1), "outside");
}

TEST(Context, CountsRowsPlusInsertsMinusDeletes) {
  test::TempDir dir;
  for (const std::size_t base : {0, 3}) {
    TestStore store(dir.path() / "a.sqlite");
    store.run([&] {
      EXPECT_EQ(store.count(), base);
      const auto first = store.add(0), second = store.add(1);
      EXPECT_EQ(store.count(), base + 2);
      for (int time = 0; time < 2; ++time) store.context->deleteObject(first);
      EXPECT_EQ(store.count(), base + 1);
      store.save();
      store.context->deleteObject(second);
      EXPECT_EQ(store.count(), base);
      store.save();
      for (int i = 0; i < 3; ++i) store.add(i);
      store.save();
      EXPECT_EQ(store.count(), base + 3);
      EXPECT_EQ(store.count({"Locations", {}, {}, 2}), 2U);
      for (const auto& object : store.fetch()) store.context->deleteObject(object);
      EXPECT_EQ(store.count(), 0U);
      for (int i = 0; i < 3; ++i) store.add(i);
      EXPECT_EQ(store.count(), 3U);
      store.save();
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
  const std::pair<const char*, std::size_t> cases[] = {
      {"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
       "INSERT INTO Locations (_key) SELECT i FROM n",
       20000},
      {"INSERT INTO Locations (\"index\") VALUES (1)", 20001},
      {"UPDATE _metadata SET value = '7 20000' WHERE name = 'Locations.rows'", 8},  // what was kept is believed
      {"DELETE FROM Locations WHERE _key = 5", 20000},
  };
  for (const auto& [sql, rows] : cases) {
    runSql(file, sql);
    EXPECT_EQ(countAfterOpening(), rows) << sql;
  }
}

TEST(Context, HandsOutOneObjectForARowWhileItIsUsedOrChanged) {
  TestStore store;
  const NSFetchRequest all{"Locations", {}, {{"index", true}}};
  store.run([&] {
    store.add(5);
    store.save();
    const auto held = store.fetch(all).at(0);
    EXPECT_EQ(store.context->existingObject(held->objectID()).value(), held);
    held->setInteger(store.at("index"), 5);
    EXPECT_FALSE(store.context->hasChanges());
  });
  store.run([&] {
    store.fetch(all).at(0)->setInteger(store.at("index"), 6);
    EXPECT_TRUE(store.context->hasChanges());
    EXPECT_EQ(store.indexes(all), "6 ");
    store.save();
    // Many objects come and go; those in use are still found as themselves.
    const auto held = store.fetch(all).at(0);
    for (int i = 0; i < 3000; ++i) store.add(100 + i);
    store.save();
    for (int round = 0; round < 3; ++round) EXPECT_EQ(store.fetch(all).at(0), held);
    EXPECT_EQ(store.count(), 3001U);
  });
}

TEST(Context, NamesObjectsTemporarilyUntilTheyAreSaved) {
  TestStore store;
  store.run([&] {
    auto object = store.add(0);
    const NSManagedObjectID early = object->objectID();
    EXPECT_EQ(early.description(), "<x-coredata:///Locations/t1>");
    EXPECT_EQ(store.context->existingObject(early).value(), object);
    store.save();
    const NSManagedObjectID late = object->objectID();
    EXPECT_EQ(late.description(), "<x-coredata://" + *late.storeUUID + "/Locations/p1>");
    object.reset();
    for (const auto& id : {early, late})
      EXPECT_EQ(store.context->existingObject(id).value()->integer(store.at("index")), 0);
    store.context->deleteObject(store.context->existingObject(early).value());
    for (const bool saved : {false, true}) {
      for (const auto& id : {early, late, NSManagedObjectID{}})
        EXPECT_EQ(store.context->existingObject(id).error().code, 133000) << saved;
      store.save();
    }
  });
}

TEST(Context, KeepsEachValueAsItWasGiven) {
  TestStore store;
  const std::string text("a\0\"'é", 6);
  store.run([&] {
    auto object = store.add(INT64_MIN);
    object->setInteger(store.at("floor"), 0);
    object->setNumber(store.at("speed"), std::numeric_limits<double>::quiet_NaN());
    object->setNumber(store.at("course"), -0.0);
    object->setNumber(store.at("latitude"), 48.1234567890123456);
    object->setString(store.at("appName"), text);
    object->setString(store.at("userAction"), std::string_view());
    store.save();
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
  TestStore store;
  const std::size_t before = InternedText::poolSize();
  std::vector<std::shared_ptr<NSManagedObject>> some, others;
  store.run([&] {
    for (int i = 0; i < 100; ++i) {
      auto& object = (i < 50 ? some : others).emplace_back(store.add(i));
      object->setString(store.at("appName"), "ios:host");
      object->setString(store.at("userAction"), i % 2 == 0 ? "walking" : "driving");
    }
    store.save();
  });
  EXPECT_EQ(InternedText::poolSize(), before + 3);
  std::thread elsewhere([&] { others.clear(); });
  some.clear();
  elsewhere.join();
  EXPECT_LE(InternedText::poolSize(), before + 2) << "the context keeps the latest text of each attribute";
  store.context.reset();
  EXPECT_EQ(InternedText::poolSize(), before);
}

}  // namespace
}  // namespace tarvo::platform
