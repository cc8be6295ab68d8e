#include "sandbox/Archive.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <ctime>
#include <random>
#include <stdexcept>
#include <string_view>

namespace tarvo::sandbox {
namespace {

void bind(sqlite3_stmt* statement, int column, std::string_view text) {
  sqlite3_bind_text64(statement, column, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

std::string textAt(sqlite3_stmt* statement, int column) {
  const void* text = sqlite3_column_blob(statement, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
  return std::string(static_cast<const char*>(text), size);
}

/// Leaves a statement ready for its next use, on every path.
struct Use {
  sqlite3_stmt* statement;
  ~Use() {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  }
};

std::string randomHex(std::size_t digits) {
  static thread_local std::random_device source;
  std::string text;
  for (std::size_t i = 0; i < digits; ++i) text += "0123456789abcdef"[source() & 15];
  return text;
}

/// Version 4: random but for the digits that say so.
std::string newUUID() {
  std::string digits = randomHex(32);
  digits[12] = '4';
  digits[16] = "89ab"[digits[16] & 3];
  for (const std::size_t dash : {8u, 13u, 18u, 23u}) digits.insert(dash, "-");
  return digits;
}

/// For instance 2024-06-15T10:11:12.034+0000.
std::string creationDate() {
  using std::chrono::milliseconds;
  const auto now = std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  std::array<char, 32> text{};
  const std::size_t size = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string fraction = std::to_string(1000 + now.time_since_epoch().count() % 1000);
  return std::string(text.data(), size) + "." + fraction.substr(1) + "+0000";
}

std::string insertPosition() {
  std::string columns = "id,useruuid", values = "?1,?2";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) {
    columns += std::string(",") + kPositionKeys[i];
    values += ",?" + std::to_string(i + 1);
  }
  return "INSERT INTO positions(" + columns + ") VALUES(" + values +
         ") ON CONFLICT(useruuid,id) DO UPDATE SET received=received+1";
}

std::string createPositions() {
  std::string sql = "CREATE TABLE IF NOT EXISTS positions(useruuid TEXT,id INTEGER,received INTEGER DEFAULT 1";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) sql += std::string(",") + kPositionKeys[i] + " TEXT";
  return sql + ",PRIMARY KEY(useruuid,id)) WITHOUT ROWID";
}

sqlite3* openDatabase(const std::filesystem::path& file) {
  // SQLite would make a file that everybody can read; its side files take over the mode of this one.
  const int made = ::open(file.c_str(), O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (made >= 0) ::close(made);
  sqlite3* database = nullptr;
  if (sqlite3_open(file.c_str(), &database) == SQLITE_OK) return database;
  const std::string why = sqlite3_errmsg(database);
  sqlite3_close(database);
  throw std::runtime_error(file.string() + ": " + why);
}

}  // namespace

Archive::Archive(const std::filesystem::path& file)
    : database_(openDatabase(file), sqlite3_close),
      addPosition_(nullptr, sqlite3_finalize),
      addBatch_(nullptr, sqlite3_finalize),
      findUser_(nullptr, sqlite3_finalize) {
  sqlite3_busy_timeout(database_.get(), 5000);
  run("PRAGMA journal_mode=WAL");
  run("PRAGMA synchronous=NORMAL");
  run("CREATE TABLE IF NOT EXISTS users(uuid TEXT PRIMARY KEY,mobileid TEXT UNIQUE,secret TEXT,creation_date TEXT,"
      "mobileos TEXT,phone_description TEXT,sensors TEXT,registrations INTEGER DEFAULT 1)");
  run(createPositions().c_str());
  run("CREATE TABLE IF NOT EXISTS batches(n INTEGER PRIMARY KEY,useruuid TEXT,first INTEGER,last INTEGER,"
      "count INTEGER)");
  addPosition_ = prepare(insertPosition());
  addBatch_ = prepare("INSERT INTO batches(useruuid,first,last,count) VALUES(?1,?2,?3,?4)");
  findUser_ = prepare("SELECT 1 FROM users WHERE uuid=?1 AND secret=?2");
}

Archive::~Archive() = default;

Identity Archive::identify(const Device& device) {
  const std::lock_guard lock(mutex_);
  const Statement statement = prepare(
      "INSERT INTO users(uuid,mobileid,secret,creation_date,mobileos,phone_description,sensors) "
      "VALUES(?1,?2,?3,?4,?5,?6,?7) ON CONFLICT(mobileid) DO UPDATE SET registrations=registrations+1 "
      "RETURNING uuid,secret,creation_date");
  int column = 0;
  for (const std::string& value : {newUUID(), device.mobileid, randomHex(32), creationDate(), device.mobileos,
                                   device.phone_description, device.sensors})
    bind(statement.get(), ++column, value);
  step(statement.get());
  Identity identity{textAt(statement.get(), 0), textAt(statement.get(), 1), textAt(statement.get(), 2)};
  step(statement.get());
  return identity;
}

void Archive::store(const std::string& user, const std::vector<Position>& batch) {
  const std::lock_guard lock(mutex_);
  run("BEGIN IMMEDIATE");
  try {
    for (const Position& position : batch) {
      const Use use{addPosition_.get()};
      sqlite3_bind_int64(use.statement, 1, position.id);
      for (std::size_t i = 1; i < position.values.size(); ++i)
        bind(use.statement, static_cast<int>(i) + 1, position.values[i]);
      step(use.statement);
    }
    const Use use{addBatch_.get()};
    bind(use.statement, 1, user);
    sqlite3_bind_int64(use.statement, 2, batch.front().id);
    sqlite3_bind_int64(use.statement, 3, batch.back().id);
    sqlite3_bind_int64(use.statement, 4, static_cast<std::int64_t>(batch.size()));
    step(use.statement);
    run("COMMIT");
  } catch (...) {
    sqlite3_exec(database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

bool Archive::knows(const Credentials& user) {
  const std::lock_guard lock(mutex_);
  const Use use{findUser_.get()};
  bind(use.statement, 1, user.name);
  bind(use.statement, 2, user.secret);
  return step(use.statement);
}

Holdings Archive::holdings() {
  const std::lock_guard lock(mutex_);
  const Statement statement = prepare(
      "SELECT (SELECT count(*) FROM users),ifnull(sum(n),0),ifnull(sum(received)-sum(n),0),"
      "(SELECT count(*) FROM batches),ifnull(sum(highest+1-n),0) "
      "FROM (SELECT count(*) AS n,sum(received) AS received,max(id) AS highest FROM positions GROUP BY useruuid)");
  step(statement.get());
  const auto at = [&](int column) { return sqlite3_column_int64(statement.get(), column); };
  return {at(0), at(1), at(2), at(3), at(4)};
}

void Archive::run(const char* sql) {
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(database_.get()));
}

Archive::Statement Archive::prepare(const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(database_.get()));
  return {statement, sqlite3_finalize};
}

bool Archive::step(sqlite3_stmt* statement) {
  const int result = sqlite3_step(statement);
  if (result == SQLITE_ROW) return true;
  if (result != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(database_.get()));
  return false;
}

}  // namespace tarvo::sandbox
