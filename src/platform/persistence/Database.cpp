#include "platform/persistence/Database.h"

#include <sqlite3.h>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// Another process, for instance a command that shows the history, may hold the file for a moment.
constexpr int kBusyTimeoutMilliseconds = 5000;

/// Each query and each set of changed columns has a text of its own; a system has a few dozen of them.
constexpr std::size_t kMostStatements = 128;

/// The write-ahead log as SQLite's file format has it, and the length from which on it is moved into the file: a page
/// that many commits have changed is then written there once.
constexpr std::uint64_t kLogHeaderBytes = 32;
constexpr std::uint64_t kFrameHeaderBytes = 24;
constexpr std::uint64_t kLogWorthMoving = 4096 * 1024;

/// A batch is read by many small statements; a look before each would cost as much as some of them.
constexpr std::chrono::milliseconds kBetweenLooks{1};

}  // namespace

Error storeError(StoreErrorCode code, std::string description, const std::filesystem::path& file) {
  Error error{NSCocoaErrorDomain, static_cast<std::int64_t>(code), std::move(description), {}};
  if (!file.empty()) error.userInfo.emplace("NSFilePath", file.string());
  return error;
}

Error noStoreError(std::string_view operation) {
  return storeError(StoreErrorCode::operation,
                    concat("This NSPersistentStoreCoordinator has no persistent stores.  It cannot perform a ",
                           operation, " operation."));
}

Database::Database(std::filesystem::path file) : file_(std::move(file)), forks_(FileLock::forks()), files_(file_) {}

Result<std::unique_ptr<Database>> Database::open(const std::filesystem::path& file) {
  std::unique_ptr<Database> database(new Database(file));
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  if (sqlite3_open_v2(file.c_str(), &database->handle_, flags, nullptr) != SQLITE_OK)
    return database->error(StoreErrorCode::open, "The store file could not be opened");
  sqlite3_busy_timeout(database->handle_, kBusyTimeoutMilliseconds);
  // Until this process has the right to write, closing it must not move a write-ahead log into it.
  sqlite3_db_config(database->handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return database;
}

std::optional<Error> Database::checkpointOnClose() {
  {
    Execution size(*this, "PRAGMA page_size", Execution::Statement::once);
    if (!size.step()) return size.error(StoreErrorCode::open, "The store's page size cannot be read");
    pageSize_ = static_cast<std::uint64_t>(size.integer(0));
  }
  sqlite3_busy_timeout(handle_, 0);
  const auto failure = runOnce("BEGIN IMMEDIATE", StoreErrorCode::open);
  const int status = sqlite3_errcode(handle_) & 0xff;
  if (!failure) (void)run("ROLLBACK", StoreErrorCode::open);
  sqlite3_busy_timeout(handle_, kBusyTimeoutMilliseconds);
  if (failure && status != SQLITE_BUSY) return failure;
  files_.watch();
  logSize_ = files_.logSize();
  sqlite3_wal_hook(handle_, didCommit, this);
  sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  return std::nullopt;
}

void Database::keepLogOnClose() { sqlite3_db_config(handle_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr); }

Database::~Database() {
  if (forks_ != FileLock::forks()) return;  // closing it would touch what is the parent's
  for (auto& [sql, prepared] : statements_) sqlite3_finalize(prepared.statement);
  if (handle_ && !isUsable(true)) keepLogOnClose();
  sqlite3_close_v2(handle_);
}

/// Stands in for SQLite's own hook, which moves the log into the file as well.
int Database::didCommit(void* database, sqlite3* handle, const char* name, int frames) {
  auto& self = *static_cast<Database*>(database);
  self.logSize_ = kLogHeaderBytes + static_cast<std::uint64_t>(frames) * (kFrameHeaderBytes + self.pageSize_);
  if (self.logSize_ >= kLogWorthMoving) sqlite3_wal_checkpoint(handle, name);
  return SQLITE_OK;
}

bool Database::isUsable(bool toWrite) {
  if (isLost_ || inTransaction()) return !isLost_;
  if (!toWrite) {
    const auto now = std::chrono::steady_clock::now();
    if (now < nextLook_) return true;
    nextLook_ = now + kBetweenLooks;
  }
  isLost_ = !files_.hasIndex() || (toWrite && !(files_.areNamed() && isLogWhole()));
  return !isLost_;
}

/// Another program may have moved the whole log into the file and emptied it, as it is free to do.
bool Database::isLogWhole() {
  if (!files_.watchesLog() || files_.logSize() >= logSize_) return true;
  if (files_.logSize() != 0) return false;
  int frames = 0;
  // With frames still to be moved this fails at the first one, since there is none to be read.
  const int status = sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_PASSIVE, &frames, nullptr);
  if ((status & 0xff) == SQLITE_BUSY) return true;  // the other is still at it; the next look finds out
  if (status != SQLITE_OK) return false;
  logSize_ = 0;
  return frames == 0;
}

sqlite3_stmt* Database::prepare(std::string_view sql, bool toKeep) {
  sqlite3_stmt* statement = nullptr;
  const unsigned flags = toKeep ? SQLITE_PREPARE_PERSISTENT : 0;
  sqlite3_prepare_v3(handle_, sql.data(), static_cast<int>(sql.size()), flags, &statement, nullptr);
  return statement;
}

Database::Prepared* Database::kept(std::string_view sql) {
  auto found = statements_.find(sql);
  if (found == statements_.end()) {
    if (statements_.size() >= kMostStatements)
      std::erase_if(statements_, [](const auto& entry) {
        if (!entry.second.isInUse) sqlite3_finalize(entry.second.statement);
        return !entry.second.isInUse;
      });
    sqlite3_stmt* statement = prepare(sql, true);
    if (!statement) return nullptr;
    found = statements_.emplace(sql, Prepared{statement, false}).first;
  }
  if (found->second.isInUse) return nullptr;
  found->second.isInUse = true;
  return &found->second;
}

std::optional<Error> Database::run(std::string_view sql, StoreErrorCode code) {
  Execution execution(*this, sql);
  return execution.runToEnd(code, sql);
}

std::optional<Error> Database::runOnce(std::string_view sql, StoreErrorCode code) {
  Execution execution(*this, sql, Execution::Statement::once);
  return execution.runToEnd(code, sql);
}

std::optional<Error> Database::checkpoint() {
  if (isUsable(true) &&
      sqlite3_wal_checkpoint_v2(handle_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) == SQLITE_OK) {
    logSize_ = 0;
    return std::nullopt;
  }
  return error(StoreErrorCode::operation, "The write-ahead log could not be moved into the store file");
}

std::optional<Error> Database::flush() {
  sqlite3_file* log = nullptr;
  sqlite3_file_control(handle_, nullptr, SQLITE_FCNTL_JOURNAL_POINTER, &log);  // the write-ahead log, in this mode
  if (log != nullptr && log->pMethods != nullptr && log->pMethods->xSync(log, SQLITE_SYNC_NORMAL) == SQLITE_OK)
    return std::nullopt;
  return error(StoreErrorCode::operation, "The write-ahead log could not be flushed");
}

bool Database::isReadOnly() const { return sqlite3_db_readonly(handle_, "main") != 0; }
bool Database::inTransaction() const { return sqlite3_get_autocommit(handle_) == 0; }
std::int64_t Database::rowsChanged() const { return sqlite3_changes64(handle_); }

void Database::noteDamage() {
  const int status = sqlite3_errcode(handle_);
  sawDamage_ |= status == SQLITE_CORRUPT || status == SQLITE_NOTADB;
}

/// SQLite keeps pages that it cannot make sense of, also when the disk would give the right ones by now.
void Database::forgetDamagedPages() {
  if (!sawDamage_ || inTransaction()) return;
  sawDamage_ = false;
  sqlite3_db_release_memory(handle_);
}

Error Database::error(StoreErrorCode code, std::string_view what) const {
  if (isLost_) {
    isLossTold_ = true;
    return storeError(code, concat(what, ": the store was removed, replaced or cut short while it was open"), file_);
  }
  const int status = handle_ ? sqlite3_extended_errcode(handle_) : SQLITE_NOMEM;
  const char* text = handle_ ? sqlite3_errmsg(handle_) : sqlite3_errstr(status);
  Error error = storeError(code, concat(what, ": ", text), file_);
  error.userInfo.emplace("NSSQLiteErrorDomain", status);
  return error;
}

Execution::Execution(Database& database, std::string_view sql, Statement use)
    : database_(database),
      kept_(use == Statement::kept ? database.kept(sql) : nullptr),
      statement_(kept_ ? kept_->statement : database.prepare(sql, false)),
      failed_(!statement_ || !database.isUsable(sqlite3_stmt_readonly(statement_) == 0)) {}

Execution::~Execution() {
  if (failed_) database_.noteDamage();
  if (kept_) {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    kept_->isInUse = false;
  } else {
    sqlite3_finalize(statement_);
  }
  database_.forgetDamagedPages();
}

std::optional<Error> Execution::runToEnd(StoreErrorCode code, std::string_view sql) {
  while (step()) {
  }
  if (failed_) return error(code, concat(sql, " failed"));
  return std::nullopt;
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

Result<Transaction> Transaction::begin(Database& database, Kind kind) {
  const auto error = kind == Kind::writing ? database.run("BEGIN IMMEDIATE", StoreErrorCode::save)
                                           : database.run("BEGIN", StoreErrorCode::operation);
  if (error) return *error;
  return Transaction(database);
}

Transaction::~Transaction() {
  // SQLite ends a transaction by itself on a full disk, failed input or output and lack of memory.
  if (database_ && database_->inTransaction()) (void)database_->run("ROLLBACK", StoreErrorCode::save);
}

}  // namespace tarvo::platform
