#include "limits/RawStore.h"

#include "support/Process.h"

namespace tarvo::bench {

RawStore::RawStore(const std::filesystem::path& file) {
  if (sqlite3_open_v2(file.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK)
    fail("cannot open " + file.string());
  run("PRAGMA journal_mode = WAL");
  run("PRAGMA synchronous = NORMAL");
  run("PRAGMA wal_autocheckpoint = 4096");  // pages of 1 KiB: as long a log as the SDK's
}

void RawStore::run(const char* sql) {
  if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    fail(std::string(sql) + ": " + sqlite3_errmsg(database_));
}

std::int64_t RawStore::number(const char* sql) {
  RawStatement statement(*this, sql);
  if (!statement.step()) fail(std::string(sql) + ": no row");
  return statement.integer(0);
}

RawStatement::RawStatement(RawStore& store, const char* sql) {
  if (sqlite3_prepare_v2(store.handle(), sql, -1, &statement_, nullptr) != SQLITE_OK)
    fail(std::string(sql) + ": " + sqlite3_errmsg(store.handle()));
}

bool RawStatement::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) fail(std::string(sqlite3_sql(statement_)) + ": " + sqlite3_errstr(result));
  return false;
}

}  // namespace tarvo::bench
