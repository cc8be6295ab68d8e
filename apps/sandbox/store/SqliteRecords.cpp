#include "sandbox/store/SqliteRecords.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "sandbox/store/Identities.h"
#include "sandbox/wire/Numbers.h"

namespace tarvo::sandbox {
namespace {

std::string insertPosition() {
  std::string columns = "id,useruuid", values = "?1,?2";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) {
    columns += std::string(",") + kPositionKeys[i];
    values += ",?" + std::to_string(i + 1);
  }
  return "INSERT INTO positions(" + columns + ",time) VALUES(" + values + ",?" +
         std::to_string(kPositionKeys.size() + 1) +
         ") ON CONFLICT(useruuid,id) DO UPDATE SET received=received+1 RETURNING received";
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

constexpr const char* kCount =
    "INSERT INTO units(useruuid,positions,repeats,highest,id,time,lon,lat) VALUES(?,?,?,?,?,?,?,?) "
    "ON CONFLICT(useruuid) DO UPDATE SET positions=positions+excluded.positions,repeats=repeats+excluded.repeats,"
    "highest=max(highest,excluded.highest),(id,time,lon,lat)=(SELECT id,time,lon,lat FROM "
    "(SELECT units.id,units.time,units.lon,units.lat UNION ALL "
    "SELECT excluded.id,excluded.time,excluded.lon,excluded.lat) ORDER BY time DESC LIMIT 1)";

std::vector<derive::Row> allRows(Execution& select) {
  std::vector<derive::Row> rows;
  while (select.step()) rows.push_back({select.number(0), select.real(1), select.real(2), select.text(3)});
  return rows;
}

}  // namespace

SqliteReads::SqliteReads(Database& database)
    : points(database.prepare("SELECT id,time,lon,lat,acc,speed FROM positions WHERE useruuid=? AND time BETWEEN ? "
                              "AND ? ORDER BY time,id")),
      longest(database.prepare("SELECT longest FROM spans WHERE useruuid=? AND kind=?")),
      rows(database.prepare("SELECT id,begins,ends,json FROM derived WHERE useruuid=? AND kind=? AND begins BETWEEN ? "
                            "AND ? AND ends>=? ORDER BY begins,id")),
      numbered(database.prepare("SELECT id,begins,ends,json FROM derived WHERE useruuid=? AND kind=? AND id>? AND "
                                "id<=? ORDER BY id")) {}

SqliteWrites::SqliteWrites(Database& file)
    : database(file),
      addPosition(database.prepare(insertPosition())),
      addBatch(database.prepare("INSERT INTO batches(useruuid,first,last,count) VALUES(?,?,?,?)")),
      count(database.prepare(kCount)),
      put(database.prepare("INSERT INTO derived(useruuid,kind,id,begins,ends,json) VALUES(?,?,?,?,?,?) "
                           "ON CONFLICT(useruuid,kind,id) DO UPDATE SET begins=excluded.begins,ends=excluded.ends,"
                           "json=excluded.json")),
      lengthen(database.prepare("INSERT INTO spans(useruuid,kind,longest) VALUES(?,?,?) ON CONFLICT(useruuid,kind) DO "
                                "UPDATE SET longest=excluded.longest WHERE excluded.longest>longest")),
      remove(database.prepare("DELETE FROM derived WHERE useruuid=? AND kind=? AND id=?")),
      addEvent(database.prepare("INSERT INTO events(useruuid,kind,json) VALUES(?,?,?)")),
      forgetEvents(database.prepare("DELETE FROM events WHERE n<=?")) {}

std::int64_t SqliteWrites::tell(std::string_view user, std::string_view kind, std::string_view json) {
  Execution(addEvent).bind(user).bind(kind).bind(json).step();
  const std::int64_t n = sqlite3_last_insert_rowid(database.connection());
  if (n % kForgottenAtOnce == 0) Execution(forgetEvents).bind(n - kKeptEvents).step();
  return n;
}

SqliteWrites& SqliteRecords::writes() const {
  if (writes_ == nullptr) throw std::logic_error("who looks must not write");
  return *writes_;
}

std::vector<derive::Point> SqliteRecords::points(double from, double to) {
  Execution select(reads_.points);
  select.bind(user_).bind(from).bind(to);
  std::vector<derive::Point> points;
  const auto decimal = [&](int column) { return readDecimal(select.text(column)); };
  while (select.step())
    points.push_back({select.number(0), select.real(1), decimal(2).value_or(0), decimal(3).value_or(0),
                      decimal(4).value_or(-1), decimal(5).value_or(-1)});
  return points;
}

std::vector<derive::Row> SqliteRecords::rows(derive::Kind kind, double from, double to) {
  double longest = 0;
  {
    Execution select(reads_.longest);
    if (!select.bind(user_).bind(name(kind)).step()) return {};
    longest = select.real(0);
  }
  Execution select(reads_.rows);
  select.bind(user_).bind(name(kind)).bind(from - longest).bind(to).bind(from);
  return allRows(select);
}

std::vector<derive::Row> SqliteRecords::numbered(derive::Kind kind, std::int64_t first, std::int64_t last) {
  Execution select(reads_.numbered);
  select.bind(user_).bind(name(kind)).bind(first).bind(last);
  return allRows(select);
}

void SqliteRecords::put(derive::Kind kind, const derive::Row& row) {
  Execution(writes().put)
      .bind(user_)
      .bind(name(kind))
      .bind(row.id)
      .bind(row.from)
      .bind(row.to)
      .bind(std::string_view(row.json))
      .step();
  // A little more, for what rounding takes away.
  Execution(writes().lengthen).bind(user_).bind(name(kind)).bind((row.to - row.from) * 1.001 + 1).step();
}

void SqliteRecords::remove(derive::Kind kind, std::int64_t id) {
  Execution(writes().remove).bind(user_).bind(name(kind)).bind(id).step();
}

std::vector<derive::Point> SqliteRecords::add(const std::vector<Position>& batch) {
  std::vector<derive::Point> fresh;
  std::int64_t repeats = 0, highest = -1;
  const derive::Point* newest = nullptr;
  fresh.reserve(batch.size());
  for (const Position& position : batch) {
    const auto point = readPoint(position);
    Execution insert(writes().addPosition);
    insert.bind(position.id).bind(user_);
    for (std::size_t i = 2; i < position.values.size(); ++i) insert.bind(std::string_view(position.values[i]));
    insert.bind(point ? point->time : NAN);
    insert.step();
    const bool isRepeat = insert.number(0) > 1;
    insert.step();
    highest = std::max(highest, position.id);
    if (isRepeat)
      ++repeats;
    else if (point)
      fresh.push_back(*point);
  }
  for (const derive::Point& point : fresh)
    if (newest == nullptr || point.time >= newest->time) newest = &point;
  const auto size = static_cast<std::int64_t>(batch.size());
  Execution(writes().addBatch).bind(user_).bind(batch.front().id).bind(batch.back().id).bind(size).step();
  Execution count(writes().count);
  count.bind(user_).bind(size - repeats).bind(repeats).bind(highest).bind(newest == nullptr ? -1 : newest->id);
  for (const auto part : {&derive::Point::time, &derive::Point::lon, &derive::Point::lat})
    count.bind(newest == nullptr ? NAN : newest->*part);
  count.step();
  return fresh;
}

void SqliteRecords::addCall(const Form& form, const std::vector<std::string>& texts) {
  const auto statement = writes().database.prepare(insertCall(form));
  Execution insert(statement);
  insert.bind(user_);
  if (form.call != nullptr) insert.bind(std::string_view(form.call));
  for (const std::string& text : texts) insert.bind(std::string_view(text));
  insert.step();
}

void SqliteRecords::addReset(std::string_view call) {
  const auto statement = writes().database.prepare("INSERT INTO resets(useruuid,call) VALUES(?,?)");
  Execution(statement).bind(user_).bind(call).step();
}

void SqliteRecords::addLog(std::string_view file, std::string_view content) {
  if (logs_ != nullptr) logs_->keep(user_, file, content);
  const auto statement = writes().database.prepare(
      "INSERT INTO logs(useruuid,file,bytes) VALUES(?,?,?) ON CONFLICT(useruuid,file) DO UPDATE SET "
      "bytes=excluded.bytes,received=received+1");
  Execution(statement).bind(user_).bind(file).bind(static_cast<std::int64_t>(content.size())).step();
}

}  // namespace tarvo::sandbox
