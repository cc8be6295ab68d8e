#include "sandbox/Archive.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <random>

#include "sandbox/Database.h"

namespace tarvo::sandbox {
namespace {

std::string randomHex(std::size_t digits) {
  static thread_local std::random_device source;
  std::string text;
  for (std::size_t i = 0; i < digits; ++i) text += "0123456789abcdef"[source() & 15];
  return text;
}

/// Random but for the digits that tell the version.
std::string newUUID() {
  std::string digits = randomHex(32);
  digits[12] = '4';
  digits[16] = "89ab"[digits[16] & 3];
  for (const std::size_t dash : {8u, 13u, 18u, 23u}) digits.insert(dash, "-");
  return digits;
}

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

/// A random UUID of version 4, 128 random bits as secret, and the time of now such as 2024-06-15T10:11:12.034+0000.
Identity newIdentity() { return {newUUID(), randomHex(32), creationDate()}; }

constexpr const char* kTables =
    "CREATE TABLE IF NOT EXISTS users(uuid TEXT PRIMARY KEY,mobileid TEXT UNIQUE,secret TEXT,creation_date TEXT,"
    "mobileos TEXT,phone_description TEXT,sensors TEXT,registrations INTEGER DEFAULT 1);"
    "CREATE TABLE IF NOT EXISTS batches(n INTEGER PRIMARY KEY,useruuid TEXT,first INTEGER,last INTEGER,count INTEGER);"
    "CREATE TABLE IF NOT EXISTS tokens(n INTEGER PRIMARY KEY,useruuid TEXT,token TEXT,envir TEXT,app_id TEXT,"
    "tokenusage TEXT);"
    "CREATE TABLE IF NOT EXISTS tags(n INTEGER PRIMARY KEY,useruuid TEXT,call TEXT,name TEXT,value TEXT,envir TEXT,"
    "app_id TEXT);"
    "CREATE TABLE IF NOT EXISTS subscriptions(n INTEGER PRIMARY KEY,useruuid TEXT,call TEXT,subscription TEXT,"
    "envir TEXT,app_id TEXT,notification TEXT);"
    "CREATE TABLE IF NOT EXISTS resets(n INTEGER PRIMARY KEY,useruuid TEXT,call TEXT);"
    "CREATE TABLE IF NOT EXISTS logs(file TEXT PRIMARY KEY,useruuid TEXT,bytes INTEGER,received INTEGER DEFAULT 1);"
    "CREATE TABLE IF NOT EXISTS requests(n INTEGER PRIMARY KEY,method TEXT,path TEXT,status INTEGER)";

std::string createPositions() {
  std::string sql = "CREATE TABLE IF NOT EXISTS positions(useruuid TEXT,id INTEGER,received INTEGER DEFAULT 1";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) sql += std::string(",") + kPositionKeys[i] + " TEXT";
  return sql + ",PRIMARY KEY(useruuid,id)) WITHOUT ROWID";
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

std::string insertCall(const Form& form) {
  std::string columns = "useruuid", values = "?";
  if (form.call != nullptr) {
    columns += ",call";
    values += ",?";
  }
  for (const char* key : form.keys) {
    columns += std::string(",") + key;
    values += ",?";
  }
  return std::string("INSERT INTO ") + form.table + "(" + columns + ") VALUES(" + values + ")";
}

/// An open file that has its tables.
Database prepared(const std::filesystem::path& file) {
  Database database(file);
  database.run(kTables);
  database.run(createPositions().c_str());
  return database;
}

}  // namespace

struct Archive::Open {
  explicit Open(const std::filesystem::path& file) : database(prepared(file)) {}

  Database database;
  Database::Statement addPosition = database.prepare(insertPosition());
  Database::Statement addBatch = database.prepare("INSERT INTO batches(useruuid,first,last,count) VALUES(?,?,?,?)");
  Database::Statement addRequest = database.prepare("INSERT INTO requests(method,path,status) VALUES(?,?,?)");
  Database::Statement findUser = database.prepare("SELECT 1 FROM users WHERE uuid=? AND secret=?");
};

Archive::Archive(const std::filesystem::path& file) : open_(std::make_unique<Open>(file)) {}

Archive::~Archive() = default;

Identity Archive::identify(const Device& device) {
  const std::lock_guard lock(mutex_);
  const auto statement = open_->database.prepare(
      "INSERT INTO users(uuid,mobileid,secret,creation_date,mobileos,phone_description,sensors) "
      "VALUES(?,?,?,?,?,?,?) ON CONFLICT(mobileid) DO UPDATE SET registrations=registrations+1 "
      "RETURNING uuid,secret,creation_date");
  const Identity fresh = newIdentity();
  Execution insert(statement);
  insert.bind(fresh.uuid).bind(device.mobileid).bind(fresh.secret).bind(fresh.creationDate);
  insert.bind(device.mobileos).bind(device.phone_description).bind(device.sensors);
  insert.step();
  Identity identity{insert.text(0), insert.text(1), insert.text(2)};
  insert.step();
  return identity;
}

void Archive::store(const std::string& user, const std::vector<Position>& batch) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(open_->database);
  for (const Position& position : batch) {
    Execution insert(open_->addPosition);
    insert.bind(position.id);
    for (std::size_t i = 1; i < position.values.size(); ++i) insert.bind(position.values[i]);
    insert.step();
  }
  Execution(open_->addBatch)
      .bind(user)
      .bind(batch.front().id)
      .bind(batch.back().id)
      .bind(static_cast<std::int64_t>(batch.size()))
      .step();
  transaction.commit();
}

void Archive::storeCall(const std::string& user, const Form& form, const std::vector<std::string>& texts) {
  const std::lock_guard lock(mutex_);
  const auto statement = open_->database.prepare(insertCall(form));
  Execution insert(statement);
  insert.bind(user);
  if (form.call != nullptr) insert.bind(std::string_view(form.call));
  for (const std::string& text : texts) insert.bind(text);
  insert.step();
}

void Archive::storeReset(const std::string& user, std::string_view call) {
  const std::lock_guard lock(mutex_);
  const auto statement = open_->database.prepare("INSERT INTO resets(useruuid,call) VALUES(?,?)");
  Execution(statement).bind(user).bind(call).step();
}

void Archive::storeLog(const std::string& user, std::string_view file, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  const auto statement = open_->database.prepare(
      "INSERT INTO logs(file,useruuid,bytes) VALUES(?,?,?) ON CONFLICT(file) DO UPDATE SET "
      "useruuid=excluded.useruuid,bytes=excluded.bytes,received=received+1");
  Execution(statement).bind(file).bind(user).bind(static_cast<std::int64_t>(bytes)).step();
}

void Archive::storeRequest(std::string_view method, std::string_view path, int status) {
  const std::lock_guard lock(mutex_);
  Execution(open_->addRequest).bind(method).bind(path).bind(std::int64_t{status}).step();
}

bool Archive::knows(const Credentials& user) {
  const std::lock_guard lock(mutex_);
  return Execution(open_->findUser).bind(user.name).bind(user.secret).step();
}

Holdings Archive::holdings() {
  const std::lock_guard lock(mutex_);
  const auto statement = open_->database.prepare(
      "SELECT (SELECT count(*) FROM users),ifnull(sum(n),0),ifnull(sum(received)-sum(n),0),"
      "(SELECT count(*) FROM batches),ifnull(sum(highest+1-n),0),(SELECT count(*) FROM logs) "
      "FROM (SELECT count(*) AS n,sum(received) AS received,max(id) AS highest FROM positions GROUP BY useruuid)");
  Execution select(statement);
  select.step();
  return {select.number(0), select.number(1), select.number(2), select.number(3), select.number(4), select.number(5)};
}

}  // namespace tarvo::sandbox
