#include "sandbox/store/PostgresRecords.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "sandbox/store/Identities.h"
#include "sandbox/store/PostgresSchema.h"
#include "sandbox/wire/Numbers.h"

namespace tarvo::sandbox::postgres {
namespace {

/// A batch holds the positions of a few days. One that is spread over more than this puts the rest into the default
/// partition: each day costs locks, of which the server has a fixed number.
constexpr std::size_t kMostDays = 64;

/// A whole batch in one statement: what is known of its numbers, what is new, and what the ledger says afterwards. The
/// user's row is locked, so nobody else changes these rows meanwhile. Gives the places in the batch of what was new.
std::string insertBatch() {
  std::string columns, parameters;
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) {
    columns += std::string(",") + kPositionKeys[i];
    parameters += ",$" + std::to_string(i + 3) + "::text[]";
  }
  return "WITH batch AS MATERIALIZED(SELECT * FROM unnest($2::int8[],$3::date[],$4::float8[]" + parameters +
         ") WITH ORDINALITY AS b(id,day,time" + columns +
         ",place)),"
         "known AS MATERIALIZED(SELECT block,ids FROM numbers WHERE useruuid=$1 AND block IN (SELECT id>>12 FROM "
         "batch)),"
         "fresh AS MATERIALIZED(SELECT DISTINCT ON (b.id) b.* FROM batch b LEFT JOIN known k ON k.block=b.id>>12 "
         "WHERE k.ids IS NULL OR NOT k.ids @> (b.id & 4095)::int4 ORDER BY b.id,b.place),"
         "kept AS (INSERT INTO positions(useruuid,id,day,time" +
         columns + ") SELECT $1,id,day,time" + columns +
         " FROM fresh),"
         "marked AS (INSERT INTO numbers AS n SELECT $1,id>>12,"
         "range_agg(int4range((id & 4095)::int4,(id & 4095)::int4+1)),count(*),min(day),max(day) FROM fresh GROUP BY "
         "id>>12 ON CONFLICT(useruuid,block) DO UPDATE SET ids=n.ids+excluded.ids,held=n.held+excluded.held,"
         "first_day=least(n.first_day,excluded.first_day),last_day=greatest(n.last_day,excluded.last_day)),"
         "again AS (INSERT INTO repeats AS r SELECT $1,b.id,1+count(*) FROM batch b LEFT JOIN fresh f USING(id,place) "
         "WHERE f.id IS NULL GROUP BY b.id "
         "ON CONFLICT(useruuid,id) DO UPDATE SET arrivals=r.arrivals+excluded.arrivals-1),"
         "upload AS (INSERT INTO batches(useruuid,first,last,count) VALUES($1,($2::int8[])[1],"
         "($2::int8[])[cardinality($2::int8[])],cardinality($2::int8[]))) SELECT place FROM fresh ORDER BY place";
}

std::string insertCall(const Form& form) {
  std::string columns = "useruuid,call", values = "$1,$2";
  if (form.call == nullptr) columns = "useruuid", values = "$1";
  int last = form.call == nullptr ? 1 : 2;
  for (const char* key : form.keys) {
    columns += std::string(",") + key;
    values += ",$" + std::to_string(++last);
  }
  return std::string("INSERT INTO ") + form.table + "(" + columns + ") VALUES(" + values + ")";
}

std::vector<derive::Row> allRows(const Result& result) {
  std::vector<derive::Row> rows;
  rows.reserve(static_cast<std::size_t>(result.rows()));
  for (int i = 0; i < result.rows(); ++i)
    rows.push_back({result.number(i, 0), result.real(i, 1), result.real(i, 2), result.text(i, 3)});
  return rows;
}

/// The date of a moment, for pruning: beyond what has partitions it need not be exact.
std::int64_t dayNumber(double time) {
  constexpr double kBounds = 1e6;
  return static_cast<std::int64_t>(std::floor(std::clamp(time / 86400, -kBounds, kBounds)));
}

}  // namespace

void Events::add(std::string_view user, std::string_view kind, std::string_view json) {
  users_.add(user);
  kinds_.add(kind);
  jsons_.add(json);
  ++count_;
}

std::int64_t Events::tell(Connection& connection) {
  if (count_ == 0) return 0;
  const Result result = connection.run(
      "WITH taken AS (UPDATE sandbox SET events=events+$4 RETURNING events) INSERT INTO events SELECT "
      "taken.events-$4+e.place,e.useruuid,e.kind,e.json FROM taken,unnest($1::text[],$2::text[],$3::text[]) WITH "
      "ORDINALITY AS e(useruuid,kind,json,place) RETURNING n",
      Parameters() << users_ << kinds_ << jsons_ << count_);
  const std::int64_t last = result.number(result.rows() - 1, 0);
  forgetEvents(connection, last, count_);
  return last;
}

void forgetEvents(Connection& connection, std::int64_t last, std::int64_t count) {
  if (last / kForgottenAtOnce != (last - count) / kForgottenAtOnce)
    connection.run("DELETE FROM events WHERE n<=$1", Parameters() << last - kKeptEvents);
}

Result Records::write(const std::string& sql, const Parameters& parameters) {
  if (events_ == nullptr) throw std::logic_error("who looks must not write");
  return connection_.run(sql, parameters);
}

std::vector<derive::Point> Records::points(double from, double to) {
  const Result result = connection_.run(
      "SELECT id,time,lon,lat,acc,speed FROM positions WHERE useruuid=$1 AND time BETWEEN $2 AND $3 AND "
      "(day IS NULL OR day BETWEEN date '1970-01-01'+$4::int AND date '1970-01-01'+$5::int) ORDER BY time,id",
      Parameters() << user_ << from << to << dayNumber(from) << dayNumber(to));
  std::vector<derive::Point> points;
  points.reserve(static_cast<std::size_t>(result.rows()));
  for (int i = 0; i < result.rows(); ++i) {
    const auto decimal = [&](int column) { return readDecimal(result.text(i, column)); };
    points.push_back({result.number(i, 0), result.real(i, 1), decimal(2).value_or(0), decimal(3).value_or(0),
                      decimal(4).value_or(-1), decimal(5).value_or(-1)});
  }
  return points;
}

std::vector<derive::Row> Records::rows(derive::Kind kind, double from, double to) {
  return allRows(connection_.run(
      "SELECT id,begins,ends,json FROM derived WHERE useruuid=$1 AND kind=$2 AND begins BETWEEN $3::float8-(SELECT "
      "longest FROM spans WHERE useruuid=$1 AND kind=$2) AND $4 AND ends>=$3 ORDER BY begins,id",
      Parameters() << user_ << name(kind) << from << to));
}

std::vector<derive::Row> Records::numbered(derive::Kind kind, std::int64_t first, std::int64_t last) {
  return allRows(connection_.run(
      "SELECT id,begins,ends,json FROM derived WHERE useruuid=$1 AND kind=$2 AND id>$3 AND id<=$4 ORDER BY id",
      Parameters() << user_ << name(kind) << first << last));
}

void Records::put(derive::Kind kind, const derive::Row& row) {
  // A little more than its length, for what rounding takes away.
  write(
      "WITH length AS (INSERT INTO spans AS s VALUES($1,$2,$7) ON CONFLICT(useruuid,kind) DO UPDATE SET "
      "longest=excluded.longest WHERE excluded.longest>s.longest) INSERT INTO derived VALUES($1,$2,$3,$4,$5,$6) "
      "ON CONFLICT(useruuid,kind,id) DO UPDATE SET begins=excluded.begins,ends=excluded.ends,json=excluded.json",
      Parameters() << user_ << name(kind) << row.id << row.from << row.to << row.json
                   << (row.to - row.from) * 1.001 + 1);
}

void Records::remove(derive::Kind kind, std::int64_t id) {
  write("DELETE FROM derived WHERE useruuid=$1 AND kind=$2 AND id=$3", Parameters() << user_ << name(kind) << id);
}

std::vector<derive::Point> Records::add(const std::vector<Position>& batch) {
  Array ids(Array::Int8), days(Array::Date), times(Array::Float8);
  std::vector<Array> columns(kPositionKeys.size() - 2, Array(Array::Text));
  std::vector<std::optional<derive::Point>> points;
  std::set<int> used;
  std::int64_t highest = -1;
  for (const Position& position : batch) {
    const auto& point = points.emplace_back(readPoint(position));
    auto day = point ? partitionDay(point->time) : std::nullopt;
    if (day && !used.contains(*day) && used.size() == kMostDays) day.reset();
    if (day) used.insert(*day);
    ids.add(position.id);
    days.addDay(day);
    point ? times.add(point->time) : times.addNull();
    for (std::size_t i = 0; i < columns.size(); ++i) columns[i].add(std::string_view(position.values[i + 2]));
    highest = std::max(highest, position.id);
  }
  Parameters parameters;
  parameters << user_ << ids << days << times;
  for (const Array& column : columns) parameters << column;
  static const std::string kInsertBatch = insertBatch();
  std::optional<Result> places;
  try {
    places = write(kInsertBatch, parameters);
  } catch (const Error& error) {
    if (error.state == kCheckViolation) throw MissingDays(error, used);
    throw;
  }
  std::vector<derive::Point> fresh;
  const derive::Point* newest = nullptr;
  for (int i = 0; i < places->rows(); ++i)
    if (const auto& point = points.at(static_cast<std::size_t>(places->number(i, 0) - 1))) {
      fresh.push_back(*point);
      if (newest == nullptr || point->time >= newest->time) newest = &*point;
    }
  const std::int64_t added = places->rows(), repeats = static_cast<std::int64_t>(batch.size()) - added;
  write(
      "UPDATE units SET positions=positions+$2,repeats=repeats+$3,highest=greatest(highest,$4),batches=batches+1 "
      "WHERE useruuid=$1",
      Parameters() << user_ << added << repeats << highest);
  if (newest != nullptr)
    write("UPDATE units SET id=$2,time=$3,lon=$4,lat=$5 WHERE useruuid=$1 AND coalesce(time<=$3,true)",
          Parameters() << user_ << newest->id << newest->time << newest->lon << newest->lat);
  return fresh;
}

void Records::addCall(const Form& form, const std::vector<std::string>& texts) {
  Parameters parameters;
  parameters << user_;
  if (form.call != nullptr) parameters << form.call;
  for (const std::string& text : texts) parameters << text;
  write(insertCall(form), parameters);
}

void Records::addReset(std::string_view call) {
  write("INSERT INTO resets(useruuid,call) VALUES($1,$2)", Parameters() << user_ << call);
}

void Records::addLog(std::string_view file, std::string_view content) {
  write(
      "INSERT INTO logs AS l VALUES($1,$2,$3) ON CONFLICT(useruuid,file) DO UPDATE SET "
      "content=excluded.content,received=l.received+1",
      (Parameters() << user_ << file).bytes(content));
}

void Records::tell(std::string_view kind, std::string_view json) {
  if (events_ == nullptr) throw std::logic_error("who looks must not write");
  events_->add(user_, kind, json);
}

}  // namespace tarvo::sandbox::postgres
