#include "platform/persistence/Database.h"

#include <sqlite3.h>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// Another process, for instance a command that shows the history, may hold the file for a moment.
constexpr int kBusyTimeoutMilliseconds = 5000;

/// Each query and each set of changed columns has a text of its own; a system has a few dozen of them.
constexpr std::size_t kMostStatements = 128;

}  // namespace

Result<std::unique_ptr<Database>> Database::open(const std::filesystem::path& file) {
  std::unique_ptr<Database> database(new Database(file));
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  if (sqlite3_open_v2(file.c_str(), &database->handle_, flags, nullptr) != SQLITE_OK)
    return database->error(StoreErrorCode::open, "The store file could not be opened");
  sqlite3_busy_timeout(database->handle_, kBusyTimeoutMilliseconds);
  // Until it is known to be ours, closing it must not move a write-ahead log into it.
  sqlite3_db_config(database->handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return database;
}

void Database::adopt() { sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr); }

Database::~Database() {
  finalizeStatements();
  sqlite3_close_v2(handle_);
}

void Database::finalizeStatements() {
  for (auto& [sql, statement] : statements_) sqlite3_finalize(statement);
  statements_.clear();
}

sqlite3_stmt* Database::prepared(std::string_view sql) {
  if (auto found = statements_.find(sql); found != statements_.end()) return found->second;
  if (statements_.size() >= kMostStatements) finalizeStatements();
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(handle_, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement,
                         nullptr) != SQLITE_OK)
    return nullptr;
  statements_.emplace(sql, statement);
  return statement;
}

std::optional<Error> Database::run(std::string_view sql, StoreErrorCode code) {
  Execution execution(*this, sql);
  while (execution.step()) {
  }
  if (execution.failed()) return execution.error(code, concat(sql, " failed"));
  return std::nullopt;
}

std::optional<Error> Database::checkpoint() {
  if (sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) == SQLITE_OK)
    return std::nullopt;
  return error(StoreErrorCode::operation, "The write-ahead log could not be moved into the store file");
}

bool Database::isReadOnly() const { return sqlite3_db_readonly(handle_, "main") != 0; }
bool Database::inTransaction() const { return sqlite3_get_autocommit(handle_) == 0; }
std::int64_t Database::rowsChanged() const { return sqlite3_changes64(handle_); }

Error Database::error(StoreErrorCode code, std::string_view what) const {
  const int status = handle_ ? sqlite3_extended_errcode(handle_) : SQLITE_NOMEM;
  const char* text = handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(status);
  Error error = storeError(code, concat(what, ": ", text), file_);
  error.userInfo.emplace("NSSQLiteErrorDomain", status);
  return error;
}

Execution::Execution(Database& database, std::string_view sql)
    : database_(database), statement_(database.prepared(sql)), failed_(statement_ == nullptr) {}

Execution::~Execution() {
  if (!statement_) return;
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

void Execution::check(int status) {
  if (status != SQLITE_OK) failed_ = true;
}

void Execution::bind(int parameter, std::int64_t value) {
  if (!failed_) check(sqlite3_bind_int64(statement_, parameter, value));
}

void Execution::bind(int parameter, double value) {
  if (!failed_) check(sqlite3_bind_double(statement_, parameter, value));
}

void Execution::bind(int parameter, std::string_view value) {
  // A null pointer would bind NULL; no destructor: the text outlives the execution.
  const char* bytes = value.data() ? value.data() : "";
  if (!failed_) check(sqlite3_bind_text64(statement_, parameter, bytes, value.size(), nullptr, SQLITE_UTF8));
}

void Execution::bindNull(int parameter) {
  if (!failed_) check(sqlite3_bind_null(statement_, parameter));
}

bool Execution::step() {
  if (failed_) return false;
  const int status = sqlite3_step(statement_);
  failed_ = status != SQLITE_ROW && status != SQLITE_DONE;
  return status == SQLITE_ROW;
}

// One look-up of the column serves its type and its value. Nobody else uses the connection meanwhile.
Cell Execution::cell(int column) const { return Cell(sqlite3_column_value(statement_, column)); }

bool Cell::isNull() const { return sqlite3_value_type(value_) == SQLITE_NULL; }
std::int64_t Cell::integer() const { return sqlite3_value_int64(value_); }
double Cell::number() const { return sqlite3_value_double(value_); }

std::string_view Cell::text() const {
  const void* bytes = sqlite3_value_text(value_);
  if (!bytes) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_value_bytes(value_))};
}

Transaction::~Transaction() {
  // SQLite ends a transaction by itself on a full disk, failed input or output and lack of memory.
  if (database_.inTransaction()) database_.run("ROLLBACK", StoreErrorCode::save);
}

}  // namespace tarvo::platform
