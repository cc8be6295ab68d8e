#include "sandbox/store/PostgresStore.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "sandbox/store/Identities.h"
#include "sandbox/store/PostgresConnection.h"
#include "sandbox/store/PostgresRecords.h"
#include "sandbox/store/PostgresSchema.h"
#include "sandbox/wire/Numbers.h"

namespace tarvo::sandbox::postgres {
namespace {

/// A server takes 100 unless it is told otherwise: some processes with this many, and those who look after it.
constexpr std::size_t kMostConnections = 16;

/// Of one change. Locks are taken in the same order everywhere, so even one more is a surprise.
constexpr int kMostTries = 5;

/// Numbers in a row of `numbers`.
constexpr std::int64_t kBlock = 4096;

constexpr const char* kUnits =
    "SELECT u.uuid,coalesce(u.phone_description,''),c.positions,c.repeats,c.highest,coalesce(h.seen,0),"
    "coalesce(h.connected,0),c.id,c.time,c.lon,c.lat FROM users u JOIN units c ON c.useruuid=u.uuid "
    "LEFT JOIN hosts h ON h.useruuid=u.uuid ";

Unit unitIn(const Result& rows, int i) {
  Unit unit{rows.text(i, 0),   rows.text(i, 1),   rows.number(i, 2), rows.number(i, 3),
            rows.number(i, 4), rows.number(i, 5), rows.number(i, 6), {}};
  if (!rows.isNull(i, 8))
    unit.newest = derive::Point{rows.number(i, 7), rows.real(i, 8), rows.real(i, 9), rows.real(i, 10)};
  return unit;
}

void lockUser(Connection& connection, const std::string& user) {
  if (connection.run("SELECT FROM units WHERE useruuid=$1 FOR UPDATE", Parameters() << user).rows() == 0)
    throw Error("nobody is registered as " + user, "");
}

/// Those that came, by number, as ranges with both ends.
std::vector<std::pair<std::int64_t, std::int64_t>> arrived(Connection& connection, const std::string& user) {
  const Result rows = connection.run(
      "SELECT block,lower(r),upper(r) FROM numbers,unnest(ids) r WHERE useruuid=$1 ORDER BY block,lower(r)",
      Parameters() << user);
  std::vector<std::pair<std::int64_t, std::int64_t>> ranges;
  for (int i = 0; i < rows.rows(); ++i) {
    const std::int64_t start = rows.number(i, 0) * kBlock;
    ranges.emplace_back(start + rows.number(i, 1), start + (rows.number(i, 2) - 1));
  }
  return ranges;
}

}  // namespace

PostgresStore::PostgresStore(const std::string& url) : pool_(std::make_unique<Pool>(url, kMostConnections)) {
  prepareSchema(*Pool::Lease(*pool_));
}

PostgresStore::~PostgresStore() = default;

Identity PostgresStore::identify(const Device& device) {
  const Pool::Lease connection(*pool_);
  if (storable(device.mobileid) != device.mobileid) throw Error("a device's identifier must not contain NUL", "");
  const Identity fresh = newIdentity();
  const Result row = connection->run(
      "WITH known AS (INSERT INTO users AS u(uuid,mobileid,secret,creation_date,mobileos,phone_description,sensors) "
      "VALUES($1,$2,$3,$4,$5,$6,$7) ON CONFLICT(mobileid) DO UPDATE SET registrations=u.registrations+1 "
      "RETURNING uuid,secret,creation_date),"
      "unit AS (INSERT INTO units(useruuid) SELECT uuid FROM known ON CONFLICT DO NOTHING) SELECT * FROM known",
      Parameters() << fresh.uuid << device.mobileid << fresh.secret << fresh.creationDate << device.mobileos
                   << device.phone_description << device.sensors);
  return {row.text(0, 0), row.text(0, 1), row.text(0, 2)};
}

bool PostgresStore::knows(const Credentials& user) {
  const Pool::Lease connection(*pool_);
  return connection->run("SELECT FROM users WHERE uuid=$1 AND secret=$2", Parameters() << user.name << user.secret)
             .rows() == 1;
}

void PostgresStore::change(const std::string& user, const std::function<void(UserRecords&)>& work) {
  const Pool::Lease connection(*pool_);
  for (int tried = 1;; ++tried) try {
      Transaction transaction(*connection);
      lockUser(*connection, user);
      Events events;
      Records records(user, *connection, &events);
      work(records);
      events.tell(*connection);
      return transaction.commit();
    } catch (const MissingDays& missing) {
      if (tried == kMostTries) throw;
      makeDays(*connection, missing.days);
    } catch (const Error& error) {
      if (tried == kMostTries || (error.state != kSerializationFailure && error.state != kDeadlock)) throw;
    }
}

void PostgresStore::look(const std::string& user, const std::function<void(derive::Records&)>& work) {
  const Pool::Lease connection(*pool_);
  Transaction transaction(*connection, Transaction::OneMoment);
  Records records(user, *connection, nullptr);
  work(records);
  transaction.commit();
}

void PostgresStore::addRequest(const RequestRow& request) {
  const Pool::Lease connection(*pool_);
  const Result row = connection->run(
      "WITH taken AS (UPDATE sandbox SET events=events+1,requests=requests+1 RETURNING events,requests),"
      "kept AS (INSERT INTO requests(n,method,path,status,at,useruuid,bytes,fault) "
      "SELECT requests,$1,$2,$3,$4::int8,$5::text,$6,$7 FROM taken),"
      "unit AS (INSERT INTO hosts(useruuid,seen) SELECT $5,$4 WHERE $5<>'' ON CONFLICT(useruuid) DO UPDATE SET "
      "seen=excluded.seen) INSERT INTO events SELECT events,$5,'request',requests::text FROM taken RETURNING n",
      Parameters() << request.method << request.path << std::int64_t{request.status} << request.at << request.unit
                   << request.bytes << request.fault);
  forgetEvents(*connection, row.number(0, 0), 1);
}

std::vector<RequestRow> PostgresStore::requests(std::int64_t before, std::int64_t limit) {
  const Pool::Lease connection(*pool_);
  const Result result = connection->run(
      "SELECT n,at,useruuid,method,path,status,bytes,fault FROM requests WHERE n<$1 ORDER BY n DESC LIMIT $2",
      Parameters() << before << limit);
  std::vector<RequestRow> rows;
  for (int i = 0; i < result.rows(); ++i)
    rows.push_back({result.number(i, 0), result.number(i, 1), result.text(i, 2), result.text(i, 3), result.text(i, 4),
                    static_cast<int>(result.number(i, 5)), result.number(i, 6), result.text(i, 7)});
  return rows;
}

std::int64_t PostgresStore::requestCount() {
  const Pool::Lease connection(*pool_);
  return connection->run("SELECT requests FROM sandbox").number(0, 0);
}

Holdings PostgresStore::holdings() {
  const Pool::Lease connection(*pool_);
  const Result row = connection->run(
      "SELECT (SELECT count(*) FROM users),coalesce(sum(positions),0),coalesce(sum(repeats),0),"
      "coalesce(sum(batches),0),coalesce(sum(highest-positions+1),0),(SELECT count(*) FROM logs) FROM units");
  return {row.number(0, 0), row.number(0, 1), row.number(0, 2), row.number(0, 3), row.number(0, 4), row.number(0, 5)};
}

std::vector<Unit> PostgresStore::units() {
  const Pool::Lease connection(*pool_);
  const Result rows = connection->run(std::string(kUnits) + "ORDER BY u.n");
  std::vector<Unit> units;
  for (int i = 0; i < rows.rows(); ++i) units.push_back(unitIn(rows, i));
  return units;
}

std::optional<Unit> PostgresStore::unit(const std::string& user) {
  const Pool::Lease connection(*pool_);
  const Result rows = connection->run(std::string(kUnits) + "WHERE u.uuid=$1", Parameters() << user);
  if (rows.rows() == 0) return std::nullopt;
  return unitIn(rows, 0);
}

std::vector<Held> PostgresStore::positions(const std::string& user, std::int64_t first, std::int64_t last,
                                           std::int64_t limit) {
  const Pool::Lease connection(*pool_);
  // The days of the blocks that are sure to hold so many from the first number on.
  const Result days = connection->run(
      "SELECT coalesce(min(first_day),'infinity'),coalesce(max(last_day),'-infinity') FROM (SELECT first_day,last_day,"
      "sum(held) OVER (ORDER BY block)-held AS before FROM numbers WHERE useruuid=$1 AND block BETWEEN $2::int8>>12 "
      "AND $3::int8>>12) b WHERE before<$4::numeric+4096",
      Parameters() << user << first << last << limit);
  const Result result = connection->run(
      "SELECT id,time,lon,lat,acc,speed FROM positions WHERE useruuid=$1 AND id BETWEEN $2 AND $3 AND "
      "(day IS NULL OR day BETWEEN $5::date AND $6::date) ORDER BY id LIMIT $4",
      Parameters() << user << first << last << limit << days.text(0, 0) << days.text(0, 1));
  std::vector<Held> held;
  for (int i = 0; i < result.rows(); ++i) {
    const auto decimal = [&](int column) { return readDecimal(result.text(i, column)); };
    held.push_back({result.number(i, 0), result.isNull(i, 1) ? std::nullopt : std::optional(result.real(i, 1)),
                    decimal(2), decimal(3), decimal(4), decimal(5)});
  }
  return held;
}

Ledger PostgresStore::ledger(const std::string& user, std::int64_t limit) {
  const Pool::Lease connection(*pool_);
  Transaction transaction(*connection, Transaction::OneMoment);
  const Result row = connection->run("SELECT positions,highest FROM units WHERE useruuid=$1", Parameters() << user);
  if (row.rows() == 0) return {};
  Ledger ledger{row.number(0, 0), row.number(0, 1), {}, {}};
  const auto most = static_cast<std::size_t>(std::max<std::int64_t>(limit, 0));
  std::int64_t next = 0;
  if (ledger.count <= ledger.highest)
    for (const auto& [first, last] : arrived(*connection, user)) {
      if (ledger.holes.size() == most) break;
      if (first > next) ledger.holes.emplace_back(next, first - 1);
      if (last < std::numeric_limits<std::int64_t>::max()) next = last + 1;
    }
  const Result again = connection->run("SELECT id,arrivals FROM repeats WHERE useruuid=$1 ORDER BY id LIMIT $2",
                                       Parameters() << user << limit);
  for (int i = 0; i < again.rows(); ++i) ledger.repeats.emplace_back(again.number(i, 0), again.number(i, 1));
  transaction.commit();
  return ledger;
}

std::vector<LogFile> PostgresStore::logs(const std::string& user) {
  const Pool::Lease connection(*pool_);
  const Result rows =
      connection->run("SELECT file,length(content),received FROM logs WHERE useruuid=$1 ORDER BY file COLLATE \"C\"",
                      Parameters() << user);
  std::vector<LogFile> files;
  for (int i = 0; i < rows.rows(); ++i) files.push_back({rows.text(i, 0), rows.number(i, 1), rows.number(i, 2)});
  return files;
}

std::optional<std::string> PostgresStore::log(const std::string& user, const std::string& file) {
  const Pool::Lease connection(*pool_);
  const Result rows = connection->run("SELECT content FROM logs WHERE useruuid=$1 AND file=$2",
                                      Parameters() << user << file, /*raw=*/true);
  if (rows.rows() == 0) return std::nullopt;
  return rows.text(0, 0);
}

std::int64_t PostgresStore::tell(const std::string& user, std::string_view kind, std::string_view json) {
  const Pool::Lease connection(*pool_);
  Events events;
  events.add(user, kind, json);
  return events.tell(*connection);
}

std::vector<Event> PostgresStore::events(std::int64_t after, std::int64_t limit, const std::string& user) {
  const Pool::Lease connection(*pool_);
  const Result rows = connection->run(
      "SELECT n,useruuid,kind,json FROM events WHERE n>$1 AND ($3='' OR useruuid=$3) ORDER BY n LIMIT $2",
      Parameters() << after << limit << user);
  std::vector<Event> events;
  for (int i = 0; i < rows.rows(); ++i)
    events.push_back({rows.number(i, 0), rows.text(i, 1), rows.text(i, 2), rows.text(i, 3)});
  return events;
}

std::int64_t PostgresStore::lastEvent() {
  const Pool::Lease connection(*pool_);
  return connection->run("SELECT events FROM sandbox").number(0, 0);
}

void PostgresStore::connected(const std::string& user, std::int64_t until) {
  const Pool::Lease connection(*pool_);
  connection->run(
      "INSERT INTO hosts(useruuid,connected) VALUES($1,$2) ON CONFLICT(useruuid) DO UPDATE SET "
      "connected=excluded.connected",
      Parameters() << user << until);
}

void PostgresStore::setHealth(const std::string& user, const Health& health) {
  const Pool::Lease connection(*pool_);
  connection->run(
      "INSERT INTO hosts(useruuid,at,health) VALUES($1,$2,$3) ON CONFLICT(useruuid) DO UPDATE SET at=excluded.at,"
      "health=excluded.health",
      Parameters() << user << health.at << health.json);
}

std::optional<Health> PostgresStore::health(const std::string& user) {
  const Pool::Lease connection(*pool_);
  const Result rows =
      connection->run("SELECT at,health FROM hosts WHERE useruuid=$1 AND health IS NOT NULL", Parameters() << user);
  if (rows.rows() == 0) return std::nullopt;
  return Health{rows.number(0, 0), rows.text(0, 1)};
}

}  // namespace tarvo::sandbox::postgres
