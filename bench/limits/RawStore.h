#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace tarvo::bench {

/// A store file on SQLite's own interface. The file is one that the SDK made, so the schema is the SDK's; the pragmas
/// are set here. Every failure ends the process.
class RawStore {
 public:
  explicit RawStore(const std::filesystem::path& file);
  ~RawStore() { sqlite3_close(database_); }
  RawStore(const RawStore&) = delete;
  RawStore& operator=(const RawStore&) = delete;

  void run(const char* sql);
  /// The first column of the first row.
  std::int64_t number(const char* sql);
  sqlite3* handle() const { return database_; }

 private:
  sqlite3* database_ = nullptr;
};

/// A prepared statement; texts that are bound must live until the next reset.
class RawStatement {
 public:
  RawStatement(RawStore& store, const char* sql);
  ~RawStatement() { sqlite3_finalize(statement_); }
  RawStatement(const RawStatement&) = delete;
  RawStatement& operator=(const RawStatement&) = delete;

  void bind(int parameter, double value) { sqlite3_bind_double(statement_, parameter, value); }
  void bind(int parameter, std::int64_t value) { sqlite3_bind_int64(statement_, parameter, value); }
  void bind(int parameter, std::string_view value) {
    sqlite3_bind_text(statement_, parameter, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
  }
  /// True while there is a row.
  bool step();
  void reset() { sqlite3_reset(statement_); }
  /// For a statement without rows.
  void runOnce() {
    step();
    reset();
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
  double real(int column) const { return sqlite3_column_double(statement_, column); }
  std::string_view text(int column) const {
    const void* bytes = sqlite3_column_text(statement_, column);
    return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
  }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace tarvo::bench
