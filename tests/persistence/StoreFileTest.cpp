#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <optional>
#include <tuple>

#include "persistence/TestStore.h"
#include "platform/foundation/FileLock.h"
#include "platform/persistence/Store.h"
#include "support/FreshProcess.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

TEST(ObjectStoreFile, IsCreatedForItsOwnerAloneAndWholeAfterACheckpoint) {
  TestStore store;
  std::string id;
  store.run([&] {
    store.fill(1);
    id = store.fetch().at(0)->objectID().description();
    for (const char* side : {"", "-wal", "-shm"})
      EXPECT_EQ(fs::status(store.file.string() + side).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_FALSE(store.coordinator->checkpoint());
  });
  fs::copy(store.file, store.file.string() + ".copy");
  TestStore copy(store.file.string() + ".copy");
  copy.run([&] { EXPECT_EQ(copy.fetch().at(0)->objectID().description(), id); });
}

TEST(ObjectStoreFile, IsRefusedAndLeftUntouchedWhenItIsNotAStoreOfTheModel) {
  test::TempDir dir;
  const auto good = dir.path() / "good.sqlite";
  { TestStore store(good); }
  const std::string text = bytesOf(good);
  const auto holds = [](std::string bytes) { return [=](const fs::path& file) { std::ofstream(file) << bytes; }; };
  const auto runs = [](const char* sql) { return [=](const fs::path& file) { ask(file, sql); }; };
  const auto differs = [&](std::string sql) {
    return [&good, sql = "PRAGMA journal_mode=DELETE; " + sql](const fs::path& file) {
      fs::copy(good, file);
      ask(file, sql);
    };
  };
  const std::tuple<const char*, std::function<void(const fs::path&)>, std::int64_t> cases[] = {
      {"garbage", holds(std::string(5000, 'x')), 259},
      {"foreign", runs("CREATE TABLE Locations (a)"), 134020},
      {"foreign without tables", runs("PRAGMA application_id = 7; VACUUM"), 134020},
      {"other model", differs("UPDATE _metadata SET value = 'x' WHERE name = 'modelHash'"), 134100},
      {"lost index", differs("DROP INDEX Locations_queued"), 134020},
      {"garbage behind the header", holds(text.substr(0, 100) + std::string(text.size() - 100, 'x')), 134080},
  };
  for (const auto& [name, make, code] : cases) {
    SCOPED_TRACE(name);
    const auto file = dir.path() / name;
    make(file);
    const std::string before = bytesOf(file);
    TestStore store(file);
    ASSERT_TRUE(store.failure);
    EXPECT_EQ(store.failure->code, code) << store.failure->description();
    EXPECT_EQ(findString(store.failure->userInfo, "NSFilePath"), file.string());
    EXPECT_FALSE(store.coordinator->hasStore());
    EXPECT_TRUE(bytesOf(file) == before);
  }
}

constexpr WriteRight::Patience kNone{std::chrono::seconds(0), std::chrono::seconds(0)};

std::string textOf(const std::optional<Error>& error) { return error ? error->localizedDescription : "done"; }

void save(TestStore& store, int index) {
  store.run([&] {
    store.add(index);
    store.save();
  });
}

TEST(OneWriter, KeepsTheOthersOutUntilItHasGone) {
  test::TempDir dir;
  const auto file = dir.path() / "a.sqlite";
  std::optional<TestStore> first(file);
  save(*first, 0);
  TestStore second(file, kNone);
  TestStore patient(file, {std::chrono::seconds(0), std::chrono::hours(1)});
  second.run([&] { EXPECT_EQ(second.count(), 1U); });
  save(*first, 1);
  for (TestStore* other : {&second, &patient})
    other->run([&] {
      EXPECT_EQ(other->count(), 2U) << "a reader believes no count of its own";
      EXPECT_TRUE(other->add(9));
      const std::string told = textOf(other->context->count({"Locations"}).error());
      EXPECT_NE(told.find("(process " + std::to_string(::getpid()) + ")"), told.npos) << told;
      EXPECT_EQ(textOf(other->context->save()), noStoreError("save").localizedDescription);
      EXPECT_TRUE(other->context->hasChanges());
    });
  save(*first, 2);
  first.reset();
  patient.run([&] { EXPECT_TRUE(patient.context->save()) << "it is too early for another look"; });
  second.run([&] {
    second.add(3);
    EXPECT_EQ(textOf(second.context->save()), "done");
    EXPECT_EQ(second.indexes(kByIndex), "0 1 2 3 9 ");
  });
}

TEST(OneWriter, IsNoForkedChildAndNeedsNoneToEnd) {
  test::TempDir dir;
  const auto file = dir.path() / "a.sqlite";
  int ready[2], go[2];
  ASSERT_EQ(::pipe(ready) + ::pipe(go), 0);
  char byte = 0;
  const pid_t parent = test::startProcess([&] {
    TestStore store(file);
    save(store, 0);
    test::startProcess([&] {
      store.run([&] {
        store.add(1);
        byte =
            store.context->count({"Locations"}) || !store.context->save() || store.coordinator->hasStore() ? 'n' : 'y';
      });
      (void)!::write(ready[1], &byte, 1);
      ::close(go[1]);
      return static_cast<int>(::read(go[0], &byte, 1));  // until the test lets go
    });
    return ::pause();
  });
  ::close(go[0]);
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'y');
  TestStore next(file, kNone);
  next.run([&] { EXPECT_TRUE(next.context->claim()); });
  ::kill(parent, SIGKILL);
  EXPECT_EQ(test::endOf(parent), -SIGKILL);
  next.run([&] {
    EXPECT_EQ(textOf(next.context->claim()), "done") << "the grandchild lives on";
    EXPECT_EQ(next.count(), 1U);
  });
  ::close(go[1]);
}

TEST(Creation, LeavesEachOfSeveralProcessesWithAStore) {
  for (int round = 0; round < 25; ++round) {
    test::TempDir dir;
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    std::vector<pid_t> children(4);
    for (pid_t& child : children)
      child = test::startProcess([&] {
        char byte = 0;
        ::close(go[1]);
        (void)!::read(go[0], &byte, 1);
        return TestStore(dir.path() / "a.sqlite").failure ? 1 : 0;
      });
    ::close(go[0]);
    ::close(go[1]);  // all at once
    for (const pid_t child : children) EXPECT_EQ(test::endOf(child), 0) << round;
  }
}

using Happening = std::function<void(const fs::path& file)>;

Happening removes(const char* side) {
  return [=](const fs::path& file) { fs::remove(file.string() + side); };
}

void replaces(const fs::path& file) {
  fs::copy(file, file.string() + ".new");
  fs::rename(file.string() + ".new", file);
}

TEST(LostStore, IsNoticedByTheNextSaveAndToldOnce) {
  const std::tuple<const char*, Happening, bool> cases[] = {
      {"store removed", removes(""), true},
      {"store replaced", replaces, true},
      {"log removed", removes("-wal"), true},
      {"log cut", [](const fs::path& file) { fs::resize_file(file.string() + "-wal", 5000); }, true},
      {"tidied by another program",
       [](const fs::path& file) {
         ask(file, "PRAGMA wal_checkpoint(TRUNCATE); VACUUM; PRAGMA wal_checkpoint(TRUNCATE)");
       },
       false},
  };
  for (const auto& [name, happens, isLost] : cases) {
    SCOPED_TRACE(name);
    TestStore store;
    for (int i = 0; i < 3; ++i) save(store, i);
    happens(store.file);
    store.run([&, isLost = isLost] {
      store.add(3);
      const std::string first = textOf(store.context->save());
      EXPECT_EQ(first.find("removed, replaced or cut short") != first.npos, isLost) << first;
      EXPECT_EQ(first == "done", !isLost);
      EXPECT_EQ(static_cast<bool>(store.context->count({"Locations"})), !isLost);
      EXPECT_EQ(store.context->hasChanges(), isLost);
      store.add(4);
      EXPECT_EQ(textOf(store.context->save()), isLost ? noStoreError("save").localizedDescription : "done");
    });
  }
}

TEST(Statements, InUseOutliveAnyNumberOfOthers) {
  TestStore store;
  auto& database = store.coordinator->store()->database();
  Execution rows(database,
                 "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300) SELECT i FROM n");
  for (std::int64_t i = 1; i <= 300; ++i) {
    ASSERT_TRUE(rows.step() && rows.integer(0) == i);
    ASSERT_TRUE(Execution(database, concat("SELECT ", i)).step());
  }
  EXPECT_LE(database.keptStatements(), 128U);
}

}  // namespace
}  // namespace tarvo::platform
