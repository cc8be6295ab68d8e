#include "sandbox/store/SqliteSchema.h"

#include <stdexcept>
#include <string>

#include "sandbox/wire/Numbers.h"

namespace tarvo::sandbox {
namespace {

constexpr std::int64_t kVersion = 1;

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
    "CREATE TABLE IF NOT EXISTS requests(n INTEGER PRIMARY KEY,method TEXT,path TEXT,status INTEGER);"
    "CREATE TABLE IF NOT EXISTS units(useruuid TEXT PRIMARY KEY,positions INTEGER DEFAULT 0,repeats INTEGER DEFAULT 0,"
    "highest INTEGER DEFAULT -1,seen INTEGER DEFAULT 0,id INTEGER,time REAL,lon REAL,lat REAL) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS derived(useruuid TEXT,kind TEXT,id INTEGER,begins REAL,ends REAL,json TEXT);"
    "CREATE UNIQUE INDEX IF NOT EXISTS derived_number ON derived(useruuid,kind,id);"
    "CREATE INDEX IF NOT EXISTS derived_begin ON derived(useruuid,kind,begins,ends);"
    "CREATE TABLE IF NOT EXISTS spans(useruuid TEXT,kind TEXT,longest REAL,PRIMARY KEY(useruuid,kind)) WITHOUT ROWID;"
    "CREATE TABLE IF NOT EXISTS hosts(useruuid TEXT PRIMARY KEY,connected INTEGER DEFAULT 0,at INTEGER,health TEXT);"
    "CREATE TABLE IF NOT EXISTS events(n INTEGER PRIMARY KEY,useruuid TEXT,kind TEXT,json TEXT)";

std::string createPositions() {
  std::string sql = "CREATE TABLE IF NOT EXISTS positions(useruuid TEXT,id INTEGER,received INTEGER DEFAULT 1";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) sql += std::string(",") + kPositionKeys[i] + " TEXT";
  return sql + ",PRIMARY KEY(useruuid,id)) WITHOUT ROWID";
}

/// What the version after the first tables has added to them, and the logs: two users may send one name.
constexpr const char* kAdded =
    "ALTER TABLE positions ADD COLUMN time REAL;"
    "CREATE INDEX positions_time ON positions(useruuid,time,id) WHERE time IS NOT NULL;"
    "ALTER TABLE requests ADD COLUMN at INTEGER DEFAULT 0;ALTER TABLE requests ADD COLUMN useruuid TEXT DEFAULT '';"
    "ALTER TABLE logs RENAME TO logs_before;CREATE TABLE logs(useruuid TEXT,file TEXT,bytes INTEGER,"
    "received INTEGER DEFAULT 1,PRIMARY KEY(useruuid,file)) WITHOUT ROWID;"
    "INSERT INTO logs SELECT useruuid,file,bytes,received FROM logs_before;DROP TABLE logs_before;"
    "ALTER TABLE requests ADD COLUMN bytes INTEGER DEFAULT 0;ALTER TABLE requests ADD COLUMN fault TEXT DEFAULT ''";

/// For files whose positions were counted on demand; of several newest positions any.
constexpr const char* kCount =
    "UPDATE positions SET time=wire_time(date_localisation,lon,lat);"
    "INSERT INTO units(useruuid,positions,repeats,highest) "
    "SELECT useruuid,count(*),sum(received-1),max(id) FROM positions GROUP BY useruuid;"
    "UPDATE units SET (id,time,lon,lat)=(SELECT id,time,CAST(lon AS REAL),CAST(lat AS REAL) FROM positions p "
    "WHERE p.useruuid=units.useruuid AND time IS NOT NULL ORDER BY time DESC LIMIT 1)";

void wireTime(sqlite3_context* context, int count, sqlite3_value** values) {
  const auto text = [&](int i) {
    const auto* bytes = static_cast<const char*>(sqlite3_value_blob(values[i]));
    return std::string(bytes == nullptr ? "" : bytes, static_cast<std::size_t>(sqlite3_value_bytes(values[i])));
  };
  Position position;
  for (int i = 0; i < count; ++i) position.values[std::size_t{i == 0 ? 3U : 4U + static_cast<unsigned>(i)}] = text(i);
  if (const auto point = readPoint(position)) sqlite3_result_double(context, point->time);
}

}  // namespace

void prepareSchema(Database& database) {
  Transaction transaction(database);
  const auto statement = database.prepare("PRAGMA user_version");
  std::int64_t version = 0;
  {
    Execution read(statement);
    read.step();
    version = read.number(0);
  }
  if (version > kVersion) throw std::runtime_error("the file was made by a newer version of the program");
  if (version == kVersion) return;
  database.run(kTables);
  database.run(createPositions().c_str());
  database.run(kAdded);
  sqlite3_create_function(database.connection(), "wire_time", 3, SQLITE_UTF8, nullptr, wireTime, nullptr, nullptr);
  database.run(kCount);
  database.run(("PRAGMA user_version=" + std::to_string(kVersion)).c_str());
  transaction.commit();
}

}  // namespace tarvo::sandbox
