#include <sqlite3.h>

#include "persistence/TestStore.h"
#include "platform/foundation/Text.h"
#include "support/FaultyDisk.h"

namespace tarvo::platform {
namespace {

std::string integrityOf(const std::filesystem::path& file) { return runSql(file, "PRAGMA integrity_check"); }

void expectTheMixture(TestStore& store) {
  EXPECT_EQ(store.count(), 4U);
  EXPECT_EQ(store.indexes(kByIndex), "0 1 3 4 ");
  EXPECT_EQ(store.indexes(unsentRequest()), "1 3 4 ");
  EXPECT_EQ(store.indexes({"Locations", {{"altitude", Op::equal, 12.5}}}), "1 ");
}

/// Saves a mixture of everything on a disk that fails as `fault` says, then heals it.
/// Answers whether the first save went through.
bool surviveFault(const std::function<void()>& fault) {
  TestStore store;
  runSql(store.file, "INSERT INTO _metadata VALUES ('Locations.keys', '0 0')");  // so that a deletion changes it
  bool savedAtOnce = false;
  store.run([&] {
    std::vector<std::shared_ptr<NSManagedObject>> rows;
    for (int i = 0; i < 4; ++i) rows.push_back(store.add(i));
    store.save();
    rows[0]->setBoolean(store.at("unsent"), false);
    rows[1]->setNumber(store.at("altitude"), 12.5);
    store.context->deleteObject(rows[2]);
    auto unsaved = store.add(4);
    unsaved->setString(store.at("appName"), std::string(6000, 'x'));  // pages enough to fail in their midst
    const NSManagedObjectID early = unsaved->objectID();

    fault();
    const auto error = store.context->save();
    savedAtOnce = !error;
    if (error) {
      EXPECT_GT(FaultyDisk::failures(), 0);
      EXPECT_EQ(error->code, 134030) << error->description();
      EXPECT_TRUE(find(error->userInfo, "NSSQLiteErrorDomain"));
      EXPECT_TRUE(store.context->hasChanges() && unsaved->objectID().temporary);
    }
    expectTheMixture(store);
    FaultyDisk::heal();
    store.save();
    EXPECT_FALSE(store.context->hasChanges() || unsaved->objectID().temporary);
    expectTheMixture(store);
    EXPECT_EQ(store.context->existingObject(early).value(), unsaved);
    EXPECT_FALSE(store.context->existingObject(rows[2]->objectID()));
  });
  TestStore again(store.file);
  again.run([&] { expectTheMixture(again); });
  EXPECT_EQ(integrityOf(store.file), "ok");
  return savedAtOnce;
}

TEST(Save, KeepsEverythingPendingWhicheverDiskCallFailsAndWhereverTheDiskGetsFull) {
  FaultyDisk::install();
  const std::pair<void (*)(std::int64_t), std::int64_t> faults[] = {{FaultyDisk::failAfterCalls, 1},
                                                                    {FaultyDisk::failAfterBytes, 1001}};
  for (const auto& [failAfter, step] : faults) {
    const auto save = [failAfter = failAfter, step = step](int nth) {
      return surviveFault([&] { failAfter(nth * step); });
    };
    EXPECT_GE(failuresUntilDone(save), 10);
  }
}

/// Rows that the statements of later connections have inserted, changed or deleted, whatever became of it.
int rowsTouched = 0;

int countTouchedRows(sqlite3* database, char**, const void*) {
  sqlite3_update_hook(
      database, [](void*, int, const char*, const char*, sqlite3_int64) { ++rowsTouched; }, nullptr);
  return SQLITE_OK;
}

TEST(Save, CostsTheSameOnAFullDiskWhateverIsPendingAndWritesAllOfItOnceThereIsRoom) {
  FaultyDisk::install();
  sqlite3_auto_extension(reinterpret_cast<void (*)()>(countTouchedRows));
  TestStore store;
  int next = 0;
  store.run([&] {
    FaultyDisk::failAfterBytes(0);
    for (const int pending : {10, 3000}) {
      while (next < pending) store.add(next++);
      EXPECT_TRUE(store.context->save());  // the first failure may take them all
      for (int fix = 0; fix < 3; ++fix) {
        store.add(next++);
        rowsTouched = 0;
        EXPECT_EQ(store.context->save().value_or(Error{}).code, 134030) << "each save tells";
        EXPECT_LE(rowsTouched, 2) << pending;
      }
    }
    // Room for a part: no more is tried in vain than was written, and what was written counts.
    FaultyDisk::failAfterBytes(60000);
    rowsTouched = 0;
    EXPECT_TRUE(store.context->save());
    const auto written = next - static_cast<int>(store.context->pendingInsertions("Locations"));
    EXPECT_GT(written, 10);
    EXPECT_LE(rowsTouched, 2 * written + 1);
    EXPECT_EQ(store.count(), static_cast<std::size_t>(next));

    FaultyDisk::heal();
    store.fetch({"Locations", {{"index", Op::equal, std::int64_t{0}}}})[0]->setBoolean(store.at("unsent"), false);
    EXPECT_FALSE(store.context->saveAfterFailure());
    EXPECT_FALSE(store.context->hasChanges());
    store.add(next++);
    EXPECT_FALSE(store.context->saveAfterFailure());
    EXPECT_TRUE(store.context->hasChanges()) << "the last save did not fail";
    store.save();
  });
  const char* sum = "SELECT count(*) || ' ' || count(DISTINCT \"index\") || ' ' || sum(unsent) FROM Locations";
  EXPECT_EQ(runSql(store.file, sum), concat(next, " ", next, " ", next - 1));
  EXPECT_EQ(integrityOf(store.file), "ok");
}

TEST(Save, LeavesAStoreThatCanBeCreatedLaterWhenCreationFails) {
  FaultyDisk::install();
  const auto create = [](int nth) {
    test::TempDir dir;
    FaultyDisk::failAfterCalls(nth);
    const bool opened = !TestStore(dir.path() / "a.sqlite").failure;
    FaultyDisk::heal();
    EXPECT_FALSE(TestStore(dir.path() / "a.sqlite").failure);
    return opened;
  };
  EXPECT_GE(failuresUntilDone(create), 5);
}

TEST(Save, GoesOnBehindRowsThatAnotherProgramHasInserted) {
  TestStore store;
  store.run([&] {
    store.fill(1);
    runSql(store.file, "INSERT INTO Locations (\"index\") VALUES (10), (11)");
    store.add(1);
    EXPECT_EQ(store.context->save().value_or(Error{}).code, 134030);
    store.save();
    EXPECT_EQ(store.indexes(kByIndex), "0 1 10 11 ");
  });
}

TEST(Save, WritesToEachRowItsOwnChangesThoughNeighboursShareAStatement) {
  TestStore store;
  const auto printed = [](TestStore& from) {
    std::string text;
    for (const auto& row : from.fetch(kByIndex))
      text += concat(row->integer(from.at("index")), *row->boolean(from.at("unsent")) ? "u" : "-",
                     *row->boolean(from.at("sentWithoutACK")) ? "w" : "-", row->number(from.at("altitude")),
                     row->string(from.at("appName")), " ");
    return text;
  };
  const std::string expected =
      "0-wnilnil 1-wnilnil 2-wnilnil 3u-nilnil 4--nilnil 5u-1nil 6u-1nil 7u-2nil 8u-nila 9u-nila 10u-nilb 11--2a ";
  store.run([&] {
    std::vector<std::shared_ptr<NSManagedObject>> rows;
    for (int i = 0; i < 13; ++i) rows.push_back(store.add(i));
    rows[11]->setNumber(store.at("altitude"), 2);
    store.save();
    for (const int i : {0, 1, 2, 4, 11}) rows[i]->setBoolean(store.at("unsent"), false);
    for (const int i : {0, 1, 2}) rows[i]->setBoolean(store.at("sentWithoutACK"), true);
    for (const int i : {5, 6, 7}) rows[i]->setNumber(store.at("altitude"), i == 7 ? 2 : 1);
    for (const int i : {8, 9, 10, 11}) rows[i]->setString(store.at("appName"), i == 10 ? "b" : "a");
    store.context->deleteObject(rows[12]);
    EXPECT_EQ(printed(store), expected);
    store.save();
  });
  TestStore again(store.file);
  again.run([&] { EXPECT_EQ(printed(again), expected); });
}

TEST(Save, InQueuedBlocksIsOneTransactionBeforeTheNextBlockThatIsWaitedFor) {
  FaultyDisk::install();
  TestStore store;
  std::string late;
  store.context->setLateFailure([&](const Error& error) { late += concat(error.code, " "); });
  const auto onDisk = [&] { return runSql(store.file, "SELECT count(*) FROM Locations"); };
  const auto addAndSave = [&](int index) {
    store.add(index);
    store.save();
  };
  std::string seen;
  store.run([&] {
    for (int i = 0; i < 3; ++i)
      store.context->perform([&, i] {
        addAndSave(i);
        seen += onDisk();
        if (i == 1) store.run([&] { addAndSave(10); });  // waited for: written at once, with what was put off
      });
  });
  store.run([&] {
    EXPECT_EQ(seen, "003");
    EXPECT_EQ(onDisk(), "4") << "before anything that follows";
    FaultyDisk::failAfterCalls(0);
    store.context->perform([&] { addAndSave(20); });
  });
  store.run([&] {
    EXPECT_EQ(late, "134030 ");
    EXPECT_TRUE(store.context->hasChanges()) << "all of it stays pending";
    EXPECT_EQ(store.count(), 5U);
    FaultyDisk::heal();
    addAndSave(21);
    EXPECT_EQ(onDisk(), "6");
  });
}

}  // namespace
}  // namespace tarvo::platform
