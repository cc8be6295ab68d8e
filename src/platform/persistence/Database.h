#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/foundation/Error.h"
#include "platform/persistence/StoreError.h"

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_value;

namespace tarvo::platform {

/// A connection to one SQLite file, with its prepared statements.
///
/// Threads: one at a time; the connection itself locks nothing.
/// Ownership: statements are prepared once for each text and live as long as the connection.
/// Errors: never throws; carry SQLite's extended code under "NSSQLiteErrorDomain", its text and the file's path.
class Database {
 public:
  /// Opens an existing file for reading and writing.
  static Result<std::unique_ptr<Database>> open(const std::filesystem::path& file);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// The file is ours: its last connection may tidy up when it closes.
  void adopt();
  /// Runs a statement that gives no rows or whose rows do not matter.
  std::optional<Error> run(std::string_view sql, StoreErrorCode code);
  /// Moves the write-ahead log into the file and empties it.
  std::optional<Error> checkpoint();

  bool isReadOnly() const;
  bool inTransaction() const;
  std::int64_t rowsChanged() const;  ///< by the latest insert, update or delete
  /// The failure of the latest call.
  Error error(StoreErrorCode code, std::string_view what) const;

  const std::filesystem::path& file() const { return file_; }

 private:
  friend class Execution;
  struct TextHash {
    using is_transparent = void;
    /// Texts of one table begin alike and are long; lengths and ends tell them apart.
    std::size_t operator()(std::string_view text) const {
      return text.size() ^
             std::hash<std::string_view>{}(text.substr(text.size() - std::min<std::size_t>(text.size(), 32)));
    }
  };

  explicit Database(std::filesystem::path file) : file_(std::move(file)) {}
  sqlite3_stmt* prepared(std::string_view sql);  ///< null when it cannot be
  void finalizeStatements();

  std::filesystem::path file_;
  sqlite3* handle_ = nullptr;
  std::unordered_map<std::string, sqlite3_stmt*, TextHash, std::equal_to<>> statements_;
};

/// A column of the row that a statement stands on; valid until its next step.
class Cell {
 public:
  bool isNull() const;
  std::int64_t integer() const;
  double number() const;
  std::string_view text() const;

 private:
  friend class Execution;
  explicit Cell(sqlite3_value* value) : value_(value) {}
  sqlite3_value* value_;
};

/// One run of a prepared statement: bind, then step. Its end resets the statement and drops every binding.
///
/// Bound texts must outlive it. One run of the same text at a time.
class Execution {
 public:
  Execution(Database& database, std::string_view sql);
  ~Execution();
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  /// Parameters count from 1.
  void bind(int parameter, std::int64_t value);
  void bind(int parameter, double value);
  void bind(int parameter, std::string_view value);
  void bindNull(int parameter);

  /// True for each row; false at the end and on failure.
  bool step();
  bool failed() const { return failed_; }
  /// What made it fail; to be asked before another call to the database.
  Error error(StoreErrorCode code, std::string_view what) const { return database_.error(code, what); }

  /// Columns count from 0.
  Cell cell(int column) const;
  std::int64_t integer(int column) const { return cell(column).integer(); }
  std::string_view text(int column) const { return cell(column).text(); }

 private:
  void check(int status);

  Database& database_;
  sqlite3_stmt* statement_;
  bool failed_;
};

/// A write transaction; rolled back unless committed.
class Transaction {
 public:
  explicit Transaction(Database& database) : database_(database) {}
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  std::optional<Error> begin() { return database_.run("BEGIN IMMEDIATE", StoreErrorCode::save); }
  std::optional<Error> commit() { return database_.run("COMMIT", StoreErrorCode::save); }

 private:
  Database& database_;
};

}  // namespace tarvo::platform
