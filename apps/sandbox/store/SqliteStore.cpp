#include "sandbox/store/SqliteStore.h"

#include <utility>

#include "sandbox/store/Identities.h"
#include "sandbox/store/SqliteRecords.h"
#include "sandbox/store/SqliteSchema.h"
#include "sandbox/wire/Numbers.h"

namespace tarvo::sandbox {
namespace {

constexpr const char* kUnits =
    "SELECT u.uuid,ifnull(u.phone_description,''),ifnull(c.positions,0),ifnull(c.repeats,0),ifnull(c.highest,-1),"
    "ifnull(c.seen,0),ifnull(h.connected,0),c.id,c.time,c.lon,c.lat FROM users u "
    "LEFT JOIN units c ON c.useruuid=u.uuid LEFT JOIN hosts h ON h.useruuid=u.uuid ";

Unit unitIn(const Execution& row) {
  Unit unit{row.text(0), row.text(1), row.number(2), row.number(3), row.number(4), row.number(5), row.number(6), {}};
  if (!row.isNull(8)) unit.newest = derive::Point{row.number(7), row.real(8), row.real(9), row.real(10)};
  return unit;
}

/// An open file that has its tables.
Database prepared(const std::filesystem::path& file) {
  Database database(file);
  prepareSchema(database);
  return database;
}

Database readOnly(const std::filesystem::path& file) {
  Database database(file);
  database.run("PRAGMA query_only=1");
  return database;
}

}  // namespace

struct SqliteStore::Writer {
  explicit Writer(const std::filesystem::path& file) : database(prepared(file)) {}

  Database database;
  SqliteReads reads{database};
  SqliteWrites writes{database};
  Database::Statement addRequest =
      database.prepare("INSERT INTO requests(method,path,status,at,useruuid,bytes,fault) VALUES(?,?,?,?,?,?,?)");
  Database::Statement seen = database.prepare(
      "INSERT INTO units(useruuid,seen) VALUES(?,?) ON CONFLICT(useruuid) DO UPDATE SET seen=excluded.seen");
};

struct SqliteStore::Reader {
  explicit Reader(const std::filesystem::path& file) : database(readOnly(file)) {}

  Database database;
  SqliteReads reads{database};
  Database::Statement findUser = database.prepare("SELECT 1 FROM users WHERE uuid=? AND secret=?");
  Database::Statement events = database.prepare(
      "SELECT n,useruuid,kind,json FROM events WHERE n>?1 AND (?3='' OR useruuid=?3) ORDER BY n LIMIT ?2");
  Database::Statement lastEvent = database.prepare("SELECT ifnull(max(n),0) FROM events");
};

SqliteStore::SqliteStore(const std::filesystem::path& file, const std::filesystem::path& logFolder)
    : logs_(logFolder), writer_(std::make_unique<Writer>(file)), reader_(std::make_unique<Reader>(file)) {}

SqliteStore::~SqliteStore() = default;

Identity SqliteStore::identify(const Device& device) {
  const std::lock_guard lock(writing_);
  const auto statement = writer_->database.prepare(
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

bool SqliteStore::knows(const Credentials& user) {
  const std::lock_guard lock(reading_);
  return Execution(reader_->findUser).bind(user.name).bind(user.secret).step();
}

void SqliteStore::change(const std::string& user, const std::function<void(UserRecords&)>& work) {
  const std::lock_guard lock(writing_);
  Transaction transaction(writer_->database);
  SqliteRecords records(user, writer_->reads, &writer_->writes, &logs_);
  work(records);
  transaction.commit();
}

void SqliteStore::look(const std::string& user, const std::function<void(derive::Records&)>& work) {
  const std::lock_guard lock(reading_);
  Transaction transaction(reader_->database, Transaction::Reads);
  SqliteRecords records(user, reader_->reads, nullptr, nullptr);
  work(records);
  transaction.commit();
}

void SqliteStore::addRequest(const RequestRow& request) {
  const std::lock_guard lock(writing_);
  Transaction transaction(writer_->database);
  Execution insert(writer_->addRequest);
  insert.bind(request.method).bind(request.path).bind(std::int64_t{request.status}).bind(request.at);
  insert.bind(request.unit).bind(request.bytes).bind(request.fault).step();
  const std::int64_t n = sqlite3_last_insert_rowid(writer_->database.connection());
  if (!request.unit.empty()) Execution(writer_->seen).bind(request.unit).bind(request.at).step();
  writer_->writes.tell(request.unit, "request", std::to_string(n));
  transaction.commit();
}

std::vector<RequestRow> SqliteStore::requests(std::int64_t before, std::int64_t limit) {
  const std::lock_guard lock(reading_);
  const auto statement = reader_->database.prepare(
      "SELECT n,at,useruuid,method,path,status,bytes,fault FROM requests WHERE n<? ORDER BY n DESC LIMIT ?");
  Execution select(statement);
  select.bind(before).bind(limit);
  std::vector<RequestRow> rows;
  while (select.step())
    rows.push_back({select.number(0), select.number(1), select.text(2), select.text(3), select.text(4),
                    static_cast<int>(select.number(5)), select.number(6), select.text(7)});
  return rows;
}

std::int64_t SqliteStore::requestCount() {
  const std::lock_guard lock(reading_);
  // None is ever removed.
  const auto statement = reader_->database.prepare("SELECT ifnull(max(n),0) FROM requests");
  Execution select(statement);
  select.step();
  return select.number(0);
}

Holdings SqliteStore::holdings() {
  const std::lock_guard lock(reading_);
  const auto statement = reader_->database.prepare(
      "SELECT (SELECT count(*) FROM users),ifnull(sum(n),0),ifnull(sum(received)-sum(n),0),"
      "(SELECT count(*) FROM batches),ifnull(sum(highest+1-n),0),(SELECT count(*) FROM logs) "
      "FROM (SELECT count(*) AS n,sum(received) AS received,max(id) AS highest FROM positions GROUP BY useruuid)");
  Execution select(statement);
  select.step();
  return {select.number(0), select.number(1), select.number(2), select.number(3), select.number(4), select.number(5)};
}

std::vector<Unit> SqliteStore::units() {
  const std::lock_guard lock(reading_);
  const auto statement = reader_->database.prepare(std::string(kUnits) + "ORDER BY u.rowid");
  Execution select(statement);
  std::vector<Unit> units;
  while (select.step()) units.push_back(unitIn(select));
  return units;
}

std::optional<Unit> SqliteStore::unit(const std::string& user) {
  const std::lock_guard lock(reading_);
  const auto statement = reader_->database.prepare(std::string(kUnits) + "WHERE u.uuid=?");
  Execution select(statement);
  if (!select.bind(user).step()) return std::nullopt;
  return unitIn(select);
}

std::vector<Held> SqliteStore::positions(const std::string& user, std::int64_t first, std::int64_t last,
                                         std::int64_t limit) {
  const std::lock_guard lock(reading_);
  const auto statement = reader_->database.prepare(
      "SELECT id,time,lon,lat,acc,speed FROM positions WHERE useruuid=? AND id BETWEEN ? AND ? ORDER BY id LIMIT ?");
  Execution select(statement);
  select.bind(user).bind(first).bind(last).bind(limit);
  std::vector<Held> held;
  const auto decimal = [&](int column) { return readDecimal(select.text(column)); };
  while (select.step())
    held.push_back({select.number(0), select.isNull(1) ? std::nullopt : std::optional(select.real(1)), decimal(2),
                    decimal(3), decimal(4), decimal(5)});
  return held;
}

Ledger SqliteStore::ledger(const std::string& user, std::int64_t limit) {
  const auto known = unit(user);
  if (!known) return {};
  const std::lock_guard lock(reading_);
  Ledger ledger{known->positions, known->highest, {}, {}};
  const auto read = [&](const char* sql, auto& pairs) {
    const auto statement = reader_->database.prepare(sql);
    Execution select(statement);
    select.bind(user).bind(limit);
    while (select.step()) pairs.emplace_back(select.number(0), select.number(1));
  };
  if (known->positions <= known->highest)
    read(
        "SELECT before+1,id-1 FROM (SELECT id,lag(id,1,-1) OVER (ORDER BY id) AS before FROM positions "
        "WHERE useruuid=?) WHERE id>before+1 LIMIT ?",
        ledger.holes);
  if (known->repeats > 0)
    read("SELECT id,received FROM positions WHERE useruuid=? AND received>1 ORDER BY id LIMIT ?", ledger.repeats);
  return ledger;
}

std::vector<LogFile> SqliteStore::logs(const std::string& user) {
  const std::lock_guard lock(reading_);
  const auto statement =
      reader_->database.prepare("SELECT file,bytes,received FROM logs WHERE useruuid=? ORDER BY file");
  Execution select(statement);
  select.bind(user);
  std::vector<LogFile> files;
  while (select.step()) files.push_back({select.text(0), select.number(1), select.number(2)});
  return files;
}

std::optional<std::string> SqliteStore::log(const std::string& user, const std::string& file) {
  {
    const std::lock_guard lock(reading_);
    const auto statement = reader_->database.prepare("SELECT 1 FROM logs WHERE useruuid=? AND file=?");
    if (!Execution(statement).bind(user).bind(file).step()) return std::nullopt;
  }
  return logs_.read(user, file);
}

std::int64_t SqliteStore::tell(const std::string& user, std::string_view kind, std::string_view json) {
  const std::lock_guard lock(writing_);
  return writer_->writes.tell(user, kind, json);
}

std::vector<Event> SqliteStore::events(std::int64_t after, std::int64_t limit, const std::string& user) {
  const std::lock_guard lock(reading_);
  Execution select(reader_->events);
  select.bind(after).bind(limit).bind(user);
  std::vector<Event> events;
  while (select.step()) events.push_back({select.number(0), select.text(1), select.text(2), select.text(3)});
  return events;
}

std::int64_t SqliteStore::lastEvent() {
  const std::lock_guard lock(reading_);
  Execution select(reader_->lastEvent);
  select.step();
  return select.number(0);
}

void SqliteStore::connected(const std::string& user, std::int64_t until) {
  const std::lock_guard lock(writing_);
  const auto statement = writer_->database.prepare(
      "INSERT INTO hosts(useruuid,connected) VALUES(?,?) "
      "ON CONFLICT(useruuid) DO UPDATE SET connected=excluded.connected");
  Execution(statement).bind(user).bind(until).step();
}

void SqliteStore::setHealth(const std::string& user, const Health& health) {
  const std::lock_guard lock(writing_);
  const auto statement = writer_->database.prepare(
      "INSERT INTO hosts(useruuid,at,health) VALUES(?,?,?) "
      "ON CONFLICT(useruuid) DO UPDATE SET at=excluded.at,health=excluded.health");
  Execution(statement).bind(user).bind(health.at).bind(health.json).step();
}

std::optional<Health> SqliteStore::health(const std::string& user) {
  const std::lock_guard lock(reading_);
  const auto statement =
      reader_->database.prepare("SELECT at,health FROM hosts WHERE useruuid=? AND health IS NOT NULL");
  Execution select(statement);
  if (!select.bind(user).step()) return std::nullopt;
  return Health{select.number(0), select.text(1)};
}

}  // namespace tarvo::sandbox
