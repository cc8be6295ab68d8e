#include <cmath>
#include <limits>
#include <thread>
#include <tuple>

#include "persistence/TestStore.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/FetchPlan.h"
#include "platform/persistence/Store.h"
#include "platform/persistence/TextRef.h"

namespace tarvo::platform {
namespace {

TEST(Context, EndsTheProcessWhenItIsUsedOutsideItsBlocks) {
  TestStore store;
  std::shared_ptr<NSManagedObject> object;
  store.run([&] { object = store.add(0); });
  EXPECT_DEATH(store.context->fetch({"Locations"}), "outside");
  EXPECT_DEATH(store.context->save(), "outside");
  EXPECT_DEATH(object->setInteger(store.at("index"), 1), "outside");
}

TEST(Context, KnowsTheSizeOfALargeTableWithoutCountingIt) {
  test::TempDir dir;
  const auto file = dir.path() / "a.sqlite";
  { TestStore made(file); }
  const auto rowsAfter = [&](const std::function<void(TestStore&)>& work) {
    TestStore store(file);
    store.run([&] { work(store), store.save(); });
    TestStore reader(file);
    std::size_t rows = 0;
    reader.run([&] { rows = reader.count(); });
    return rows;
  };
  const auto adds = [](TestStore& store) { store.add(0), (void)store.count(); };
  const auto removes = [](TestStore& store) { store.context->deleteObject(store.fetch({"Locations", {}, {}, 1})[0]); };
  const auto runs = [&](const char* sql) { return [&, sql](TestStore&) { ask(file, sql); }; };
  const std::tuple<const char*, std::function<void(TestStore&)>, std::size_t> cases[] = {
      {"filled by an earlier version, which kept the number of rows",
       runs("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000) "
            "INSERT INTO Locations (_key) SELECT 2 * i FROM n; INSERT INTO _metadata VALUES ('Locations.rows', '1 2')"),
       20000},
      {"kept from now on", adds, 20001},
      {"deleted", removes, 20000},
      {"inserted by another program", runs("INSERT INTO Locations (unsent) VALUES (1)"), 20001},
      {"believed", runs("UPDATE _metadata SET value = '40002 40000' WHERE name = 'Locations.keys'"), 2},
      {"corrected", runs("UPDATE _metadata SET value = '40002 20001' WHERE name = 'Locations.keys'"), 20001},
      {"the oldest removed by another program", runs("DELETE FROM Locations WHERE _key < 30000"), 5003},
      {"all removed by another program", runs("DELETE FROM Locations"), 0},
      {"begun anew", adds, 1},
  };
  for (const auto& [name, work, rows] : cases) EXPECT_EQ(rowsAfter(work), rows) << name;
}

TEST(Context, HandsOutOneObjectForARowWhileItIsUsedOrChanged) {
  TestStore store;
  store.run([&] {
    store.add(5);
    store.save();
    const auto held = store.fetch(kByIndex).at(0);
    EXPECT_EQ(store.context->existingObject(held->objectID()).value(), held);
    held->setInteger(store.at("index"), 5);
    EXPECT_FALSE(store.context->hasChanges());
  });
  store.run([&] {
    store.fetch(kByIndex).at(0)->setInteger(store.at("index"), 6);
    EXPECT_TRUE(store.context->hasChanges());
    EXPECT_EQ(store.indexes(kByIndex), "6 ");
  });
}

TEST(Context, NamesObjectsTemporarilyUntilTheyAreSaved) {
  TestStore store;
  store.run([&] {
    store.context->deleteObject(store.add(9));
    auto object = store.add(0);
    const NSManagedObjectID early = object->objectID();
    EXPECT_EQ(early.description(), "<x-coredata:///Locations/t2>");
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
      store.fill(1);  // must not be taken for the one that has gone
    }
  });
}

TEST(Context, KeepsEachValueAsItWasGiven) {
  TestStore store;
  const std::string text("a\0\"'é", 6);
  store.run([&] {
    auto object = store.add(INT64_MIN);
    object->setNumber(store.at("speed"), std::numeric_limits<double>::quiet_NaN());
    object->setString(store.at("appName"), text);
    object->setString(store.at("userAction"), std::string_view());
    store.save();
  });
  TestStore again(store.file);
  again.run([&] {
    const auto object = again.fetch().at(0);
    EXPECT_EQ(object->integer(again.at("index")), INT64_MIN);
    EXPECT_EQ(object->number(again.at("speed")), std::nullopt);
    EXPECT_EQ(object->string(again.at("appName")), text);
    EXPECT_EQ(object->string(again.at("userAction")), "");
  });
}

TEST(Context, KeepsRepeatedTextsOnceAndFreesThem) {
  TestStore store;
  const std::size_t before = TextRef::poolSize();
  std::vector<std::shared_ptr<NSManagedObject>> some, others;
  store.run([&] {
    for (int i = 0; i < 100; ++i)
      (i < 50 ? some : others)
          .emplace_back(store.add(i))
          ->setString(store.at("userAction"), i % 2 == 0 ? "walking" : "driving");
    store.save();
  });
  EXPECT_EQ(TextRef::poolSize(), before + 2);

  std::thread elsewhere([&] { others.clear(); });
  some.clear();
  elsewhere.join();
  EXPECT_LE(TextRef::poolSize(), before + 1) << "the context keeps the latest text of each attribute";
  store.context.reset();
  EXPECT_EQ(TextRef::poolSize(), before);
}

using Predicates = std::vector<NSPredicate>;
using Sorts = std::vector<NSSortDescriptor>;

/// Label, index, speed, method, whether unsent and when stored.
using Row = std::tuple<const char*, std::optional<std::int64_t>, std::optional<double>, std::optional<std::string_view>,
                       std::optional<bool>, std::optional<double>>;

const double kMoment = 1489561200.1234567;
const double kJustBefore = std::nextafter(kMoment, 0);
const double kJustAfter = std::nextafter(kMoment, 1e18);

const Row kRows[] = {
    {"a", std::nullopt, std::nullopt, "gps", std::nullopt, kMoment},
    {"b", 999, 0.5, std::nullopt, true, kJustBefore},
    {"c", 1000, std::nullopt, "Wifi", false, kJustAfter},
    {"d", 7, -1.0, "", true, std::nullopt},
    {"e", -3, 2e10, "gps2", false, -1e9},
};

const struct {
  Predicates predicates;
  Sorts sorts;
  const char* expected;
  std::size_t limit = 0;
} kRequests[] = {
    {{}, {}, "abcde"},
    {{}, {{"index", true}}, "aedbc"},
    {{}, {{"index", false}}, "cb", 2},
    {{}, {{"unsent", false}, {"index", true}}, "dbeca"},
    {{{"index", Op::atMost, "1000"}, {"index", Op::atLeast, "7"}}, {}, "bcd"},
    {{{"index", Op::atMost, "999.5"}}, {}, "bde"},
    {{{"index", Op::atLeast, std::numeric_limits<std::int64_t>::min()}}, {}, "bcde"},
    {{{"localisationMethod", Op::equal, "x' OR '1'='1"}}, {}, ""},
    {{{"eventTimestamp", Op::atMost, dateSince1970(kMoment)}}, {}, "abe"},
    {{{"eventTimestamp", Op::atLeast, distantPast()}, {"eventTimestamp", Op::atMost, distantFuture()}}, {}, "abce"},
};

void fill(TestStore& store) {
  for (const auto& [label, index, speed, method, unsent, event] : kRows) {
    auto object = store.context->insertNewObject("Locations");
    object->setString(store.at("appAction"), label);
    object->setInteger(store.at("index"), index);
    object->setNumber(store.at("speed"), speed);
    object->setString(store.at("localisationMethod"), method);
    object->setBoolean(store.at("unsent"), unsent);
    object->setDate(store.at("eventTimestamp"), event ? std::optional(dateSince1970(*event)) : std::nullopt);
  }
}

void expectAllRequests(TestStore& store, const char* where) {
  for (const auto& [predicates, sorts, expected, limit] : kRequests) {
    const NSFetchRequest request{"Locations", predicates, sorts, limit};
    std::string labels;
    for (const auto& object : store.fetch(request)) labels += *object->string(store.at("appAction"));
    EXPECT_EQ(labels, expected) << where << ", request " << &expected - &kRequests[0].expected;
    EXPECT_EQ(store.count(request), labels.size()) << where << ", expected " << expected;
  }
}

TEST(Fetch, GivesTheSameFromTheFileAndFromMemory) {
  TestStore store;
  store.run([&] {
    fill(store);
    expectAllRequests(store, "inserted");
    store.save();
    expectAllRequests(store, "saved");
    for (const auto& object : store.fetch()) object->setNumber(store.at("altitude"), 1);
    expectAllRequests(store, "changed");
    for (const auto& object : store.fetch()) store.context->deleteObject(object);
    fill(store);
    expectAllRequests(store, "inserted over deleted rows");
  });
  TestStore again(store.file);
  again.run([&] { expectAllRequests(again, "read from the file"); });
}

TEST(Fetch, LimitsAfterUnsavedChangesAreMergedIn) {
  TestStore store;
  store.run([&] {
    std::vector<std::shared_ptr<NSManagedObject>> rows;
    for (int i = 0; i < 8; ++i) rows.push_back(store.add(i * 10));
    store.save();
    rows[0]->setBoolean(store.at("unsent"), false);
    rows[1]->setBoolean(store.at("sentWithoutACK"), true);
    store.context->deleteObject(rows[2]);
    store.add(35);
    store.add(36, false);
    EXPECT_EQ(store.indexes(unsentRequest(3)), "30 35 40 ");
    rows[7]->setInteger(store.at("index"), -5);
    EXPECT_EQ(store.indexes(unsentRequest(3)), "-5 30 35 ");
    store.save();
    EXPECT_EQ(store.indexes(unsentRequest()), "-5 30 35 40 50 60 ");
  });
}

TEST(Fetch, GoesByTheCounterWhetherRowsAreInStepWithTheirKeysOrNot) {
  TestStore store;
  const auto sorted = [&](bool ascending) {
    const NSFetchRequest request{"Locations", {}, {{"index", ascending}}};
    std::string passed;
    const auto note = [&](const auto& row) { return !(passed += concat(row.integer(0).value_or(-1), " ")).empty(); };
    EXPECT_FALSE(store.context->rows(request)->forEach({store.at("index")}, note));
    EXPECT_EQ(store.indexes(request), passed);
    const NSFetchRequest first{"Locations", {}, {{"index", ascending}}, 2};
    EXPECT_TRUE(passed.starts_with(store.indexes(first))) << passed;
    return passed;
  };
  const NSFetchRequest range{"Locations", {{"index", Op::atMost, "7"}, {"index", Op::atLeast, "2"}}};
  store.run([&] {
    store.add(0);
    const auto second = store.add(1);
    store.save();
    store.add(2);
    store.add(3);
    store.save();
    EXPECT_EQ(ask(store.file, "SELECT max(_key) FROM Locations"), "4");
    EXPECT_EQ(sorted(true) + sorted(false) + store.indexes(range), "0 1 2 3 3 2 1 0 2 3 ");
    second->setInteger(store.at("index"), 7);
    store.context->insertNewObject("Locations");  // one that could not be filled in
    for (const int index : {5, 3, 7, 12, 9, 8}) store.add(index);
    store.save();
    EXPECT_EQ(sorted(true) + sorted(false), "-1 0 2 3 3 5 7 7 8 9 12 12 9 8 7 7 5 3 3 2 0 -1 ");
    EXPECT_EQ(store.indexes(range), "7 2 3 5 3 7 ");
    std::string keys;
    for (const auto& row : store.fetch({"Locations", {}, {{"index", true}}})) keys += concat(row->objectID().key, " ");
    EXPECT_EQ(keys, "5 1 3 4 7 6 2 8 11 10 9 ");
  });
}

TEST(Fetch, AnswersThePipelinesQueriesFromAnIndex) {
  TestStore store;
  const auto* entity = store.coordinator->model().entity("Locations");
  // Whether sorting the matches is left to SQLite stands last.
  const std::tuple<NSFetchRequest, const char*, bool> cases[] = {
      {unsentRequest(), "COVERING INDEX Locations_queued", false},
      {{"Locations", {{"sentWithoutACK", Op::equal, true}}, {{"index", true}}, 1000},
       "COVERING INDEX Locations_queued",
       false},
      {{"Locations", {}, {{"locationTimestamp", false}}, 1}, "INDEX Locations_locationTimestamp", false},
      {{"Locations", {}, {{"index", false}}, 1000}, "SCAN Locations\n", false},  // by key, from its end
      {{"Locations", {{"index", Op::atMost, "9"}, {"index", Op::atLeast, "1"}}},
       "PRIMARY KEY (rowid>? AND rowid<?)\nINDEX 2\nSEARCH Locations USING COVERING INDEX Locations_outOfStep",
       false},
      {{"Locations",
        {{"eventTimestamp", Op::atLeast, Date{}}, {"eventTimestamp", Op::atMost, Date{}}},
        {{"index", true}}},
       "INDEX Locations_eventTimestamp",
       true},
  };
  for (const auto& [request, way, sorts] : cases) {
    auto plan = FetchPlan::compile(*entity, request);
    Execution explanation(store.coordinator->store()->database(),
                          "EXPLAIN QUERY PLAN SELECT \"_key\" FROM \"Locations\"" + plan->whereClause() +
                              plan->orderClause(/*byKey=*/plan->sortsByCounter() && !plan->hasConditions()));
    std::string text;
    while (explanation.step()) text += std::string(explanation.text(3)) + "\n";
    EXPECT_NE(text.find(way), std::string::npos) << text;
    EXPECT_EQ(text.find("TEMP B-TREE") != std::string::npos, sorts) << text;
  }
}

}  // namespace
}  // namespace tarvo::platform
