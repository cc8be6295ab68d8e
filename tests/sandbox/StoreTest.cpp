#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "sandbox/store/Database.h"
#include "sandbox/store/OpenStore.h"
#ifdef TARVO_SANDBOX_POSTGRES
#include "sandbox/store/PostgresConnection.h"
#endif
#include "sandbox/store/SqliteStore.h"
#include "sandbox/wire/Numbers.h"
#include "support/PostgresServer.h"
#include "support/TempDir.h"

namespace tarvo::sandbox {
namespace {

using derive::Kind;
using test::TempDir;

Position position(std::int64_t id, const std::string& date, const char* lon = "11.5") {
  Position position{id, {}};
  position.values = {std::to_string(id), "u", "", date, "", lon, "48", "10", "", "", "", "", "", ""};
  return position;
}

std::string second(int s) { return "2024-06-15 10:00:0" + std::to_string(s) + " +0000"; }

template <class Row>
std::string ids(const std::vector<Row>& rows) {
  std::string text;
  for (const Row& row : rows) text += std::to_string(row.id) + " ";
  return text;
}

/// Two of what two processes would have, on each engine.
class Store : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    std::string url;
#ifdef TARVO_SANDBOX_POSTGRES
    if (isPostgres()) server = std::make_unique<test::PostgresServer>();
    if (server && server->isThere()) url = server->url();
#endif
    if (isPostgres() && url.empty()) GTEST_SKIP() << "PostgreSQL is not here";
    one = openStore(url, dir.path());
    other = openStore(url, dir.path());
    user = one->identify({"", "m", "", ""}).uuid;
  }
  static bool isPostgres() { return GetParam() == std::string("postgresql"); }
  template <class Work>
  void change(Work work) {
    one->change(user, work);
  }

  TempDir dir;
  std::unique_ptr<test::PostgresServer> server;
  std::unique_ptr<sandbox::Store> one, other;
  std::string user;
};

INSTANTIATE_TEST_SUITE_P(Engines, Store, testing::Values("sqlite", "postgresql"),
                         [](const auto& engine) { return std::string(engine.param); });

TEST(Numbers, ReadsDatesOfTheWire) {
  const std::tuple<const char*, std::optional<double>> cases[] = {
      {"2024-06-15 10:00:00 +0000", 1718445600},     {"2024-06-15 12:00:00 +0200", 1718445600},
      {"2024-06-15 04:30:00.5 -0530", 1718445600.5}, {"1969-12-31 23:59:59 +0000", -1},
      {"2024-02-30 10:00:00 +0000", std::nullopt},   {"2024-06-15T10:00:00 +0000", std::nullopt},
      {"2024-06-15 10:00:00", std::nullopt},         {"2024-06-15 24:00:00 +0000", std::nullopt},
      {"2024-06-15 10:00:00 +0000 ", std::nullopt},  {"2024-06-15 10:00:00. +0000", std::nullopt},
      {"-024-06-15 10:00:00 +0000", std::nullopt},   {"2024-06-15 10:00:00.1e9 +0000", std::nullopt}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(readDate(text), expected) << text;
}

TEST_P(Store, GivesBackWhatIsNewAndCountsTheRest) {
  std::string fresh;
  change([&](UserRecords& records) {
    fresh = ids(records.add({position(4, second(4)), position(0, second(6)), position(4, second(9)),
                             position(1, "never"), position(2, second(5), "200")}));
  });
  change([&](UserRecords& records) { fresh += "then " + ids(records.add({position(0, second(7))})); });

  EXPECT_EQ(fresh, "4 0 then ");
  const Unit unit = other->unit(user).value();
  EXPECT_EQ((std::tuple{unit.positions, unit.repeats, unit.highest, unit.newest->id}), (std::tuple{4, 2, 4, 0}));
  const Ledger ledger = other->ledger(user, 10);
  EXPECT_EQ(ledger.holes, (std::vector<std::pair<std::int64_t, std::int64_t>>{{3, 3}}));
  EXPECT_EQ(ledger.repeats, (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 2}, {4, 2}}));
  other->look(user, [](derive::Records& records) {
    EXPECT_EQ(ids(records.points(0, 1e12)), "4 0 ");
    EXPECT_EQ(ids(records.points(1718445606, 1718445606)), "0 ");
    EXPECT_THROW(records.remove(Kind::Trip, 1), std::logic_error);
  });
}

TEST_P(Store, FindsRowsWhoseSpanTouches) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  change([](UserRecords& records) {
    for (const derive::Row& row : {derive::Row{3, 10, 20, ""}, {1, 30, 31, ""}, {2, 0, 100, ""}, {4, 101, 102, ""}})
      records.put(Kind::Trip, row);
    records.put(Kind::State, {1, -kInf, kInf, "x"});
    records.put(Kind::Trip, {1, 29, 31, "new"});
  });
  const std::tuple<double, double, const char*> cases[] = {
      {0, 9, "2 "}, {20, 29, "2 3 1 "}, {32, 50, "2 "}, {101, 200, "4 "}, {103, 200, ""}, {-kInf, kInf, "2 3 1 4 "}};
  other->look(user, [&](derive::Records& records) {
    for (const auto& [from, to, expected] : cases) EXPECT_EQ(ids(records.rows(Kind::Trip, from, to)), expected) << from;
    EXPECT_EQ(ids(records.numbered(Kind::Trip, 1, 3)), "2 3 ");
    EXPECT_EQ(records.rows(Kind::State, 5, 5).at(0).json, "x");
  });
}

TEST_P(Store, UndoesWhatFailsAndTellsOnlyWhatHolds) {
  const std::int64_t before = other->lastEvent();

  EXPECT_THROW(change([](UserRecords& records) {
                 records.add({position(0, second(0))});
                 records.tell("batch", "{}");
                 throw std::runtime_error("on the way");
               }),
               std::runtime_error);
  change([](UserRecords& records) { records.tell("trips", "{}"); });
  one->tell("", "faults", "[]");

  EXPECT_EQ(other->unit(user)->positions, 0);
  std::string kinds;
  for (const Event& event : other->events(before, 10, "")) kinds += event.kind + " ";
  EXPECT_EQ(kinds, "trips faults ");
  EXPECT_EQ(other->events(before, 10, user).size(), 1u);
  EXPECT_EQ(other->lastEvent(), other->events(before, 10, "").back().n);
}

TEST_P(Store, TakesWhateverBytesThereAre) {
  const std::string odd("a\0\xff\xed\xa0\x80", 6);
  change([&](UserRecords& records) {
    records.addLog("day.log", odd);
    Position strange = position(std::numeric_limits<std::int64_t>::max(), odd);
    strange.values.back() = odd;
    EXPECT_TRUE(records.add({strange, strange}).empty());
  });
  one->addRequest({0, 7, user, "GET", odd, 200, 0, ""});
  const std::string another = one->identify({"", "another", "", ""}).uuid;
  one->change(another, [](UserRecords& records) { records.addLog("day.log", "its own"); });

  EXPECT_EQ(other->log(user, "day.log"), odd);
  EXPECT_EQ(other->log(another, "day.log"), "its own");
  EXPECT_EQ(std::tuple(other->logs(user).at(0).bytes, other->logs(user).at(0).received), std::tuple(6, 1));
  EXPECT_EQ(other->log(user, odd), std::nullopt);
  EXPECT_FALSE(other->knows({odd, odd}));
  EXPECT_EQ(other->positions(user, 0, INT64_MAX, INT64_MAX).size(), 1u);
  EXPECT_EQ(other->ledger(user, 9).holes.at(0).second, INT64_MAX - 1);
  EXPECT_EQ(std::tuple(other->requestCount(), other->requests(2, 9).at(0).unit), std::tuple(1, user));
}

TEST_P(Store, LosesNothingWhenTwoWriteAndOneFollows) {
  constexpr int kBatches = 20;
  std::int64_t seen = other->lastEvent(), told = 0;
  const auto write = [&](sandbox::Store& store) {
    for (int i = 0; i < kBatches; ++i) {
      store.change(user, [&](UserRecords& records) {
        const std::string day = "2024-06-" + std::to_string(10 + i) + " 10:00:00 +0000";
        records.add({position(i, day), position(100 + i, "2100-01-01 00:00:00 +0000")});
        records.tell("batch", "{}");
      });
      store.tell("", "faults", "[]");
    }
  };
  std::thread writers[] = {std::thread(write, std::ref(*one)), std::thread(write, std::ref(*other))};

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (told < 4 * kBatches && std::chrono::steady_clock::now() < deadline)
    for (const Event& event : one->events(seen, 100, "")) {
      EXPECT_GT(event.n, seen);
      seen = event.n;
      ++told;
    }
  for (std::thread& writer : writers) writer.join();

  EXPECT_EQ(told, 4 * kBatches);
  const Ledger ledger = one->ledger(user, 100);
  EXPECT_EQ(std::tuple(ledger.count, ledger.repeats.size(), ledger.repeats.at(5).second),
            std::tuple(2 * kBatches, 2U * kBatches, 2));
  EXPECT_EQ(ledger.holes, (std::vector<std::pair<std::int64_t, std::int64_t>>{{kBatches, 99}}));
  EXPECT_EQ(ids(one->positions(user, 18, 102, 3)), "18 19 100 ");
  one->look(user, [](derive::Records& records) {
    EXPECT_EQ(ids(records.points(1718445600, 1718532000)), "5 6 ");
    EXPECT_EQ(records.points(-1e300, 1e300).size(), 2U * kBatches);
  });
}

#ifdef TARVO_SANDBOX_POSTGRES
class PostgresStore : public Store {};
INSTANTIATE_TEST_SUITE_P(Engines, PostgresStore, testing::Values("postgresql"));

TEST_P(PostgresStore, OutlivesItsServerAndTheDaysThatAreDropped) {
  change([](UserRecords& records) { records.add({position(0, second(0)), position(1, "1970-01-01 00:00:00 +0000")}); });

  postgres::Connection(server->url()).run("DROP TABLE positions_2024_06_15");
  ASSERT_TRUE(server->restart());

  change([](UserRecords& records) {
    EXPECT_EQ(ids(records.add({position(0, second(0)), position(2, second(1))})), "2 ");
  });
  EXPECT_EQ(ids(other->positions(user, 0, 9, 9)), "1 2 ");
  EXPECT_EQ(other->unit(user)->positions, 3);
  EXPECT_THROW(openStore(server->url() + "&dbname=nowhere", {}), std::runtime_error);
}
#endif

TEST_P(Store, KeepsEachPositionOnceWhoeverWritesAtOnce) {
  constexpr int kUsers = 4, kBatches = 20;
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 2 * kUsers; ++writer)
    writers.emplace_back([&, writer] {
      sandbox::Store& store = writer % 2 == 0 ? *one : *other;
      const std::string own = store.identify({"", "device " + std::to_string(writer / 2), "", ""}).uuid;
      for (int batch = 0; batch < kBatches; ++batch)
        store.change(own, [&](UserRecords& records) {
          // What stands there is read, and not changed by another before it is written.
          const auto rows = records.numbered(Kind::State, 0, 1);
          records.put(Kind::State, {1, 0, rows.empty() ? 1 : rows[0].to + 1, ""});
          records.add({position(2 * batch, second(1)), position(2 * batch + writer % 2, second(2))});
        });
    });
  for (std::thread& writer : writers) writer.join();

  const Holdings held = one->holdings();
  EXPECT_EQ((std::tuple{held.users, held.positions, held.batches, held.missing, held.positions + held.repeats}),
            (std::tuple{kUsers + 1, kUsers * kBatches * 2, 2 * kUsers * kBatches, 0, 4 * kUsers * kBatches}));
  for (const Unit& unit : other->units())
    if (unit.uuid != user)
      one->look(unit.uuid, [](derive::Records& records) {
        EXPECT_EQ(records.numbered(Kind::State, 0, 1).at(0).to, 2 * kBatches);
      });
}

TEST(SqliteStore, TakesUpAFileOfTheVersionBefore) {
  TempDir dir;
  {
    Database old(dir.path() / "a.sqlite");
    old.run(
        "CREATE TABLE users(uuid TEXT PRIMARY KEY,mobileid TEXT UNIQUE,secret TEXT,creation_date TEXT,mobileos TEXT,"
        "phone_description TEXT,sensors TEXT,registrations INTEGER DEFAULT 1);"
        "CREATE TABLE positions(useruuid TEXT,id INTEGER,received INTEGER DEFAULT 1,app_name TEXT,date_localisation "
        "TEXT,"
        "date_mobile TEXT,lon TEXT,lat TEXT,acc TEXT,speed TEXT,bearing TEXT,alt TEXT,provider TEXT,service_action "
        "TEXT,"
        "terramesh_data_version TEXT,PRIMARY KEY(useruuid,id)) WITHOUT ROWID;"
        "CREATE TABLE requests(n INTEGER PRIMARY KEY,method TEXT,path TEXT,status INTEGER);"
        "CREATE TABLE logs(file TEXT PRIMARY KEY,useruuid TEXT,bytes INTEGER,received INTEGER DEFAULT 1);"
        "INSERT INTO logs VALUES('a.txt','u',3,2);"
        "INSERT INTO users(uuid,mobileid,secret) VALUES('u','m','s');INSERT INTO requests VALUES(7,'GET','/x',200);"
        "INSERT INTO positions(useruuid,id,received,date_localisation,lon,lat) VALUES"
        "('u',0,2,'2024-06-15 10:00:00 +0000','11.5','48'),('u',3,1,'text','11.5','48')");
  }

  std::ofstream(dir.path() / "a.txt") << "log";

  SqliteStore(dir.path() / "a.sqlite", dir.path());
  SqliteStore store(dir.path() / "a.sqlite", dir.path());

  const Unit unit = store.unit("u").value();
  EXPECT_EQ((std::tuple{unit.positions, unit.repeats, unit.highest, unit.newest->time}),
            (std::tuple{2, 1, 3, 1718445600}));
  EXPECT_EQ(store.requests(100, 10).at(0).path, "/x");
  EXPECT_EQ(std::tuple(store.logs("u").at(0).received, store.log("u", "a.txt")), std::tuple(2, "log"));
  store.look("u", [](derive::Records& records) { EXPECT_EQ(ids(records.points(0, 2e9)), "0 "); });
}

}  // namespace
}  // namespace tarvo::sandbox
