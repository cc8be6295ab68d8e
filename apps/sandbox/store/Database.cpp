#include "sandbox/store/Database.h"

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

namespace tarvo::sandbox {
namespace {

sqlite3* openConnection(const std::filesystem::path& file) {
  // SQLite would make a file that everybody can read; its side files take over the mode of this one.
  const int made = ::open(file.c_str(), O_CREAT | O_CLOEXEC | O_NONBLOCK, S_IRUSR | S_IWUSR);
  if (made >= 0) ::close(made);
  sqlite3* connection = nullptr;
  if (sqlite3_open(file.c_str(), &connection) == SQLITE_OK) return connection;
  const std::string why = sqlite3_errmsg(connection);
  sqlite3_close(connection);
  throw std::runtime_error(file.string() + ": " + why);
}

}  // namespace

Database::Database(const std::filesystem::path& file) : connection_(openConnection(file), sqlite3_close) {
  sqlite3_busy_timeout(connection_.get(), 5000);
  run("PRAGMA journal_mode=WAL");
  run("PRAGMA synchronous=NORMAL");
}

void Database::run(const char* sql) {
  if (sqlite3_exec(connection_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(connection_.get()));
}

Database::Statement Database::prepare(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(connection_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(connection_.get()));
  return {statement, sqlite3_finalize};
}

Execution::~Execution() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

Execution& Execution::bind(std::string_view text) {
  sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
  return *this;
}

Execution& Execution::bind(std::int64_t number) {
  sqlite3_bind_int64(statement_, ++bound_, number);
  return *this;
}

Execution& Execution::bind(double number) {
  sqlite3_bind_double(statement_, ++bound_, number);
  return *this;
}

bool Execution::step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(sqlite3_db_handle(statement_)));
  return false;
}

std::string Execution::text(int column) const {
  const void* text = sqlite3_column_blob(statement_, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
  return size == 0 ? std::string() : std::string(static_cast<const char*>(text), size);
}

Transaction::Transaction(Database& database, Kind kind) : database_(database) {
  database_.run(kind == Writes ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
  if (!open_) return;
  try {
    database_.run("ROLLBACK");
  } catch (const std::exception&) {  // SQLite has rolled back by itself
  }
}

void Transaction::commit() {
  database_.run("COMMIT");
  open_ = false;
}

}  // namespace tarvo::sandbox
