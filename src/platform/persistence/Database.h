#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/foundation/Error.h"
#include "platform/persistence/StoreFiles.h"

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_value;

namespace tarvo::platform {

/// The platform's numbers for what can go wrong with a store.
enum class StoreErrorCode : std::int64_t {
  fileReadUnknown = 256,
  fileReadCorrupt = 259,
  missingObject = 133000,
  invalidType = 134000,
  incompatibleSchema = 134020,
  save = 134030,
  coreData = 134060,
  operation = 134070,
  open = 134080,
  incompatibleVersionHash = 134100,
};

/// `file` may be empty.
Error storeError(StoreErrorCode code, std::string description, const std::filesystem::path& file = {});

/// "… has no persistent stores.  It cannot perform a <operation> operation."
Error noStoreError(std::string_view operation);

/// A connection to one SQLite file, with its prepared statements.
///
/// Threads: one at a time; the connection itself locks nothing.
/// Ownership: statements are prepared once for each text and kept for the next run of it.
/// Forks: a child must not touch a connection of its parent; its object is dropped there without closing.
/// Errors: never throws; carry SQLite's extended code under "NSSQLiteErrorDomain", its text and the file's path. Once
/// the file has turned out to be lost (removed, replaced, cut) every call fails without touching it.
class Database {
 public:
  /// Opens an existing file for reading and writing.
  static Result<std::unique_ptr<Database>> open(const std::filesystem::path& file);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// What lies at the file's path now is what is open; from here on it is watched.
  void watchFiles() { files_.watch(); }
  /// For the process that has the right to write: from here on the write-ahead log is moved into the file when the
  /// connection closes, or has grown long. An error if the file cannot be written; somebody who holds SQLite's own lock
  /// for the moment does not count.
  std::optional<Error> checkpointOnClose();
  /// The write-ahead log stays beside the file, as it is, when the connection closes.
  void keepLogOnClose();
  /// Runs a statement that gives no rows or whose rows do not matter.
  std::optional<Error> run(std::string_view sql, StoreErrorCode code);
  /// The same for a text that does not come again: its statement is not kept.
  std::optional<Error> runOnce(std::string_view sql, StoreErrorCode code);
  /// Moves the write-ahead log into the file and empties it.
  std::optional<Error> checkpoint();
  /// Waits until the disk holds what was committed, so that no power cut takes it.
  std::optional<Error> flush();

  /// Whether the open file can still be used: it is there under its name, with all that SQLite has written. Looks only
  /// outside of transactions, and for reading once a millisecond at most. A file that was lost stays lost.
  bool isUsable(bool toWrite);
  bool isLost() const { return isLost_; }
  /// Lost, and no error has told it yet.
  bool hasUntoldLoss() const { return isLost_ && !isLossTold_; }

  bool isReadOnly() const;
  bool inTransaction() const;
  std::int64_t rowsChanged() const;  ///< by the latest insert, update or delete
  std::size_t keptStatements() const { return statements_.size(); }
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

  struct Prepared {
    sqlite3_stmt* statement;
    bool isInUse;
  };

  explicit Database(std::filesystem::path file);
  sqlite3_stmt* prepare(std::string_view sql, bool toKeep);  ///< null when it cannot be
  Prepared* kept(std::string_view sql);                      ///< null when it cannot be, or is in use
  bool isLogWhole();
  void noteDamage();
  void forgetDamagedPages();
  static int didCommit(void* database, sqlite3* handle, const char* name, int frames);

  std::filesystem::path file_;
  const unsigned forks_;  ///< that led to the process that opened it
  sqlite3* handle_ = nullptr;
  StoreFiles files_;
  std::uint64_t pageSize_ = 0;
  std::uint64_t logSize_ = 0;                       ///< of the write-ahead log at the least, after our latest commit
  std::chrono::steady_clock::time_point nextLook_;  ///< for reading
  bool isLost_ = false;
  mutable bool isLossTold_ = false;
  bool sawDamage_ = false;  ///< a page made no sense
  std::unordered_map<std::string, Prepared, TextHash, std::equal_to<>> statements_;
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
/// Bound texts must outlive it. Runs of the same text may overlap; the inner one is then prepared for itself.
class Execution {
 public:
  enum class Statement { kept, once };

  Execution(Database& database, std::string_view sql, Statement use = Statement::kept);
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
  /// Steps over all rows; `sql` is named in the error.
  std::optional<Error> runToEnd(StoreErrorCode code, std::string_view sql);
  /// What made it fail; to be asked before another call to the database.
  Error error(StoreErrorCode code, std::string_view what) const { return database_.error(code, what); }

  /// Columns count from 0.
  Cell cell(int column) const;
  std::int64_t integer(int column) const { return cell(column).integer(); }
  std::string_view text(int column) const { return cell(column).text(); }

 private:
  void check(int status);

  Database& database_;
  Database::Prepared* kept_;  ///< null for a statement of its own
  sqlite3_stmt* statement_;
  bool failed_;
};

/// A transaction; its end rolls back what has not been committed.
class Transaction {
 public:
  /// `reading` is one view of the file, whatever another process writes meanwhile; `writing` keeps other writers out.
  enum class Kind { reading, writing };
  static Result<Transaction> begin(Database& database, Kind kind);
  ~Transaction();
  Transaction(Transaction&& other) noexcept : database_(std::exchange(other.database_, nullptr)) {}
  Transaction& operator=(Transaction&&) = delete;

  std::optional<Error> commit() { return database_->run("COMMIT", StoreErrorCode::save); }

 private:
  explicit Transaction(Database& database) : database_(&database) {}

  Database* database_;  ///< null once moved from
};

}  // namespace tarvo::platform
