#include <sqlite3.h>

#include "persistence/TestStore.h"
#include "platform/foundation/Text.h"
#include "support/FaultyDisk.h"

namespace tarvo::platform {
namespace {

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
    FaultyDisk::fill();
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
    FaultyDisk::heal();
    store.fetch({"Locations", {{"index", Op::equal, std::int64_t{0}}}})[0]->setBoolean(store.at("unsent"), false);
    EXPECT_FALSE(store.context->saveAfterFailure());
    EXPECT_FALSE(store.context->hasChanges());
  });
  const char* sum = "SELECT count(*) || ' ' || count(DISTINCT \"index\") || ' ' || sum(unsent) FROM Locations";
  EXPECT_EQ(ask(store.file, sum), concat(next, " ", next, " ", next - 1));
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
  const auto onDisk = [&] { return ask(store.file, "SELECT count(*) FROM Locations"); };
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
    FaultyDisk::fill();
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
