#pragma once

#include <sqlite3.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::sandbox {

/// One connection to a SQLite file that only its owner may read; write-ahead log, synchronous=NORMAL.
///
/// Threads: one at a time. Errors: std::runtime_error with SQLite's text.
class Database {
 public:
  using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;

  explicit Database(const std::filesystem::path& file);

  void run(const char* sql);
  Statement prepare(const std::string& sql);
  sqlite3* connection() const { return connection_.get(); }

 private:
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> connection_;
};

/// One use of a statement, which is left ready for its next on every path. `bind` fills the parameters in their order;
/// columns are read after a `step` that returned true.
class Execution {
 public:
  explicit Execution(const Database::Statement& statement) : statement_(statement.get()) {}
  ~Execution();
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  Execution& bind(std::string_view text);
  Execution& bind(const std::string& text) { return bind(std::string_view(text)); }
  Execution& bind(std::int64_t number);
  Execution& bind(double number);  ///< NULL when it is no number
  Execution& bind(const std::optional<double>& number) { return bind(number.value_or(NAN)); }
  bool step();
  std::string text(int column) const;
  std::int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }
  double real(int column) const { return sqlite3_column_double(statement_, column); }
  bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

 private:
  sqlite3_stmt* statement_;
  int bound_ = 0;
};

/// What is run before `commit` holds as a whole or not at all.
class Transaction {
 public:
  enum Kind { Writes, Reads };
  explicit Transaction(Database& database, Kind kind = Writes);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  Database& database_;
  bool open_ = true;
};

}  // namespace tarvo::sandbox
