#include <cmath>
#include <limits>
#include <tuple>

#include "persistence/TestStore.h"
#include "platform/persistence/FetchPlan.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {
namespace {

using Predicates = std::vector<NSPredicate>;
using Sorts = std::vector<NSSortDescriptor>;

struct Row {
  const char* label;
  std::optional<std::int64_t> index;
  std::optional<double> speed;
  std::optional<std::string_view> method;
  std::optional<bool> unsent;
  std::optional<double> event;
};

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
    {{}, {}, "ab", 2},
    {{}, {{"index", true}}, "aedbc"},
    {{}, {{"index", false}}, "cbdea"},
    {{}, {{"index", false}}, "cb", 2},
    {{}, {{"eventTimestamp", false}}, "cabed"},
    {{}, {{"unsent", false}, {"index", true}}, "dbeca"},
    {{{"index", Op::atLeast, "999"}}, {{"index", true}}, "bc"},
    {{{"index", Op::atMost, "1000"}, {"index", Op::atLeast, "7"}}, {}, "bcd"},
    {{{"index", Op::equal, "999"}}, {}, "b"},
    {{{"index", Op::equal, "999.0"}}, {}, "b"},
    {{{"index", Op::equal, "nine"}}, {}, ""},
    {{{"index", Op::atMost, "999.5"}}, {}, "bde"},
    {{{"index", Op::atLeast, "999.5"}}, {}, "c"},
    {{{"index", Op::atMost, "1e300"}}, {}, "bcde"},
    {{{"index", Op::atLeast, "1e300"}}, {}, ""},
    {{{"index", Op::atLeast, std::numeric_limits<std::int64_t>::min()}}, {}, "bcde"},
    {{{"unsent", Op::equal, true}}, {}, "bd"},
    {{{"unsent", Op::equal, false}}, {}, "ce"},
    {{{"localisationMethod", Op::equal, "x' OR '1'='1"}}, {}, ""},
    {{{"eventTimestamp", Op::equal, dateSince1970(kMoment)}}, {}, "a"},
    {{{"eventTimestamp", Op::atLeast, dateSince1970(kMoment)}}, {}, "ac"},
    {{{"eventTimestamp", Op::atMost, dateSince1970(kMoment)}}, {}, "abe"},
    {{{"eventTimestamp", Op::atLeast, distantPast()}, {"eventTimestamp", Op::atMost, distantFuture()}}, {}, "abce"},
};

void fill(TestStore& store) {
  for (const Row& row : kRows) {
    auto object = store.context->insertNewObject("Locations");
    object->setString(store.at("appAction"), row.label);
    object->setInteger(store.at("index"), row.index);
    object->setNumber(store.at("speed"), row.speed);
    object->setString(store.at("localisationMethod"), row.method);
    object->setBoolean(store.at("unsent"), row.unsent);
    object->setDate(store.at("eventTimestamp"), row.event ? std::optional(dateSince1970(*row.event)) : std::nullopt);
  }
}

void expectAllRequests(TestStore& store, const char* where, std::uint64_t properties = 0) {
  for (const auto& [predicates, sorts, expected, limit] : kRequests) {
    const NSFetchRequest request{"Locations", predicates, sorts, limit, properties};
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
  again.run([&] {
    expectAllRequests(again, "read from the file");
    expectAllRequests(again, "labels read on demand", std::uint64_t{1} << again.at("floor"));
  });
}

TEST(Fetch, ReadsWhatItLeftOutWhenThatIsAskedForOrSet) {
  test::TempDir dir;
  const auto file = dir.path() / "a.sqlite";
  {
    TestStore store(file);
    store.run([&] {
      fill(store);
      store.save();
    });
  }
  TestStore store(file);
  const NSFetchRequest request{"Locations", {}, {{"index", false}}, 3, std::uint64_t{1} << store.at("speed")};
  std::shared_ptr<NSManagedObject> unread;
  store.run([&] {
    auto rows = store.fetch(request);  // c, b, d
    rows[0]->setString(store.at("localisationMethod"), "Wifi");
    EXPECT_FALSE(store.context->hasChanges());
    rows[1]->setString(store.at("localisationMethod"), "gps");
    rows[1]->setBoolean(store.at("unsent"), std::nullopt);
    store.save();
    EXPECT_EQ(rows[1]->string(store.at("appAction")), "b");
    EXPECT_EQ(rows[1]->date(store.at("eventTimestamp")), dateSince1970(kJustBefore));
    unread = store.fetch(request)[2];
  });
  TestStore other(file);
  other.run([&] {
    const auto row = other.fetch(request)[1];
    EXPECT_EQ(row->string(other.at("localisationMethod")), "gps");
    EXPECT_EQ(row->boolean(other.at("unsent")), std::nullopt);
    EXPECT_EQ(row->integer(other.at("index")), 999);
  });
  store.context.reset();
  EXPECT_EQ(unread->integer(store.at("index")), 7);
  EXPECT_EQ(unread->string(store.at("appAction")), std::nullopt);
}

TEST(Fetch, LeavesOutWhatCannotBeReadForAsLongAsItCannot) {
  TestStore store;
  store.run([&] {
    fill(store);
    store.save();
  });
  TestStore reading(store.file);
  reading.run([&] {
    const auto rows = reading.fetch({"Locations", {}, {}, 0, std::uint64_t{1} << reading.at("speed")});
    runSql(store.file, "DELETE FROM Locations WHERE \"index\" = 7; ALTER TABLE Locations RENAME TO Hidden");
    EXPECT_EQ(rows[4]->string(reading.at("localisationMethod")), std::nullopt);
    rows[4]->setNumber(reading.at("altitude"), 7);
    runSql(store.file, "ALTER TABLE Hidden RENAME TO Locations");
    EXPECT_EQ(rows[4]->string(reading.at("localisationMethod")), "gps2");
    EXPECT_EQ(rows[4]->number(reading.at("altitude")), 7);
    EXPECT_EQ(rows[3]->number(reading.at("speed")), -1.0);
    EXPECT_EQ(rows[3]->string(reading.at("appAction")), std::nullopt);
  });
}

TEST(Fetch, LimitsAfterUnsavedChangesAreMergedIn) {
  TestStore store;
  store.run([&] {
    std::vector<std::shared_ptr<NSManagedObject>> rows;
    for (int i = 0; i < 8; ++i) rows.push_back(store.add(i * 10));
    store.save();
    EXPECT_EQ(store.indexes(unsentRequest(3)), "0 10 20 ");
    rows[0]->setBoolean(store.at("unsent"), false);
    rows[1]->setBoolean(store.at("sentWithoutACK"), true);
    store.context->deleteObject(rows[2]);
    EXPECT_EQ(store.indexes(unsentRequest(3)), "30 40 50 ");
    store.add(35);
    store.add(36, false);
    EXPECT_EQ(store.indexes(unsentRequest(3)), "30 35 40 ");
    rows[7]->setInteger(store.at("index"), -5);
    EXPECT_EQ(store.indexes(unsentRequest(3)), "-5 30 35 ");
    EXPECT_EQ(store.count(unsentRequest(0)), 6U);
    store.save();
    EXPECT_EQ(store.indexes(unsentRequest()), "-5 30 35 40 50 60 ");
  });
}

TEST(Fetch, AnswersThePipelinesQueriesFromAnIndex) {
  TestStore store;
  const auto* entity = store.coordinator->model().entity("Locations");
  // Whether sorting the matches is left to SQLite stands last.
  const std::tuple<NSFetchRequest, const char*, bool> cases[] = {
      {unsentRequest(), "Locations_unsent", false},
      {{"Locations", {{"sentWithoutACK", Op::equal, true}}, {{"index", true}}, 1000}, "Locations_awaiting", false},
      {{"Locations", {}, {{"locationTimestamp", false}}, 1}, "Locations_locationTimestamp", false},
      {{"Locations", {}, {{"index", false}}, 1000}, "Locations_index", false},
      {{"Locations", {{"index", Op::atMost, "9"}, {"index", Op::atLeast, "1"}}}, "Locations_index", false},
      {{"Locations", {{"index", Op::equal, "9"}}}, "Locations_index", false},
      {{"Locations",
        {{"eventTimestamp", Op::atLeast, Date{}}, {"eventTimestamp", Op::atMost, Date{}}},
        {{"index", true}}},
       "Locations_eventTimestamp",
       true},
  };
  for (const auto& [request, index, sorts] : cases) {
    auto plan = FetchPlan::compile(*entity, request);
    Execution explanation(
        store.coordinator->store()->database(),
        "EXPLAIN QUERY PLAN SELECT \"_key\" FROM \"Locations\"" + plan->whereClause() + plan->orderClause());
    std::string text;
    while (explanation.step()) text += std::string(explanation.text(3)) + "\n";
    EXPECT_NE(text.find(std::string(" INDEX ") + index), std::string::npos) << text;
    EXPECT_EQ(text.find("TEMP B-TREE") != std::string::npos, sorts) << text;
  }
}

}  // namespace
}  // namespace tarvo::platform
