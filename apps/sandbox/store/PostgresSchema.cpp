#include "sandbox/store/PostgresSchema.h"

#include <chrono>
#include <cmath>

#include "sandbox/wire/Bodies.h"

namespace tarvo::sandbox::postgres {
namespace {

constexpr std::int64_t kVersion = 1;

/// Held while tables are made: "tarvo" in ASCII.
constexpr const char* kLock = "SELECT pg_advisory_xact_lock(499851097711)";

constexpr const char* kTables[] = {
    // A row that changes all the time; room on its page lets it do so without touching the index.
    "CREATE TABLE sandbox(one bool PRIMARY KEY DEFAULT true CHECK(one),version bigint NOT NULL,events bigint NOT NULL "
    "DEFAULT 0,requests bigint NOT NULL DEFAULT 0) WITH (fillfactor=10)",
    "CREATE TABLE users(n bigint GENERATED ALWAYS AS IDENTITY,uuid text PRIMARY KEY,mobileid text UNIQUE NOT NULL,"
    "secret text NOT NULL,creation_date text NOT NULL,mobileos text,phone_description text,sensors text,"
    "registrations bigint NOT NULL DEFAULT 1)",
    "CREATE TABLE units(useruuid text PRIMARY KEY,positions bigint NOT NULL DEFAULT 0,repeats bigint NOT NULL DEFAULT "
    "0,highest bigint NOT NULL DEFAULT -1,batches bigint NOT NULL DEFAULT 0,id bigint,time float8,lon float8,"
    "lat float8) WITH (fillfactor=50)",
    "CREATE TABLE hosts(useruuid text PRIMARY KEY,seen bigint NOT NULL DEFAULT 0,connected bigint NOT NULL DEFAULT 0,"
    "at bigint,health text) WITH (fillfactor=50)",
    "CREATE TABLE numbers(useruuid text,block bigint,ids int4multirange NOT NULL,held bigint NOT NULL,first_day date,"
    "last_day date,PRIMARY KEY(useruuid,block)) WITH (fillfactor=50)",
    "CREATE TABLE repeats(useruuid text,id bigint,arrivals bigint NOT NULL,PRIMARY KEY(useruuid,id))",
    "CREATE TABLE batches(n bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,useruuid text,first bigint,last bigint,"
    "count bigint)",
    "CREATE TABLE tokens(n bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,useruuid text,token text,envir text,"
    "app_id text,tokenusage text)",
    "CREATE TABLE tags(n bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,useruuid text,call text,name text,value text,"
    "envir text,app_id text)",
    "CREATE TABLE subscriptions(n bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,useruuid text,call text,"
    "subscription text,envir text,app_id text,notification text)",
    "CREATE TABLE resets(n bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,useruuid text,call text)",
    "CREATE TABLE logs(useruuid text,file text,content bytea NOT NULL,received bigint NOT NULL DEFAULT 1,"
    "PRIMARY KEY(useruuid,file))",
    "CREATE TABLE requests(n bigint PRIMARY KEY,method text,path text,status bigint,at bigint,useruuid text,"
    "bytes bigint,fault text)",
    "CREATE TABLE derived(useruuid text,kind text,id bigint,begins float8 NOT NULL,ends float8 NOT NULL,"
    "json text NOT NULL,PRIMARY KEY(useruuid,kind,id))",
    "CREATE INDEX derived_begin ON derived(useruuid,kind,begins,ends)",
    "CREATE TABLE spans(useruuid text,kind text,longest float8 NOT NULL,PRIMARY KEY(useruuid,kind))",
    "CREATE TABLE events(n bigint PRIMARY KEY,useruuid text NOT NULL,kind text NOT NULL,json text NOT NULL)",
    // Positions that were put under a day whose partition does not exist fall into the default one and fail its check:
    // that is how their absence is noticed, without looking for partitions at each batch.
    "CREATE TABLE positions_other PARTITION OF positions(CONSTRAINT day_without_partition CHECK(day IS NULL)) DEFAULT",
    "CREATE UNIQUE INDEX positions_number ON positions(useruuid,id,day)",
    "CREATE INDEX positions_time ON positions(useruuid,time,id) WHERE time IS NOT NULL",
};

std::string createPositions() {
  std::string sql = "CREATE TABLE positions(useruuid text NOT NULL,id bigint NOT NULL,day date,time float8";
  for (std::size_t i = 2; i < kPositionKeys.size(); ++i) sql += std::string(",") + kPositionKeys[i] + " text";
  return sql + ") PARTITION BY RANGE(day)";
}

int today() {
  using std::chrono::days, std::chrono::system_clock;
  return std::chrono::floor<days>(system_clock::now()).time_since_epoch().count();
}

}  // namespace

void prepareSchema(Connection& connection) {
  Transaction transaction(connection);
  connection.run(kLock);
  if (connection.run("SELECT to_regclass('sandbox')").isNull(0, 0)) {
    connection.run(createPositions());
    for (const char* table : kTables) connection.run(table);
    connection.run("INSERT INTO sandbox(version) VALUES($1)", Parameters() << kVersion);
  } else if (connection.run("SELECT version FROM sandbox").number(0, 0) != kVersion) {
    throw Error("the tables were made by a newer version of the program", "");
  }
  transaction.commit();
}

std::optional<int> partitionDay(double time) {
  constexpr int kFirst = 10957;  // 2000-01-01
  const double day = std::floor(time / 86400);
  if (!(day >= kFirst && day <= today() + 1)) return std::nullopt;
  return static_cast<int>(day);
}

void makeDays(Connection& connection, const std::set<int>& days) {
  for (const int day : days) {
    Transaction transaction(connection);
    connection.run(kLock);
    const std::string date = "(date '1970-01-01'+" + std::to_string(day) + ")";
    const Result row = connection.run("SELECT " + date + ",to_char(" + date + ",'\"positions_\"YYYY_MM_DD')," + date +
                                      "+1,EXISTS(SELECT FROM pg_inherits WHERE inhparent='positions'::regclass AND "
                                      "inhrelid=to_regclass(to_char(" +
                                      date + ",'\"positions_\"YYYY_MM_DD')))");
    if (row.text(0, 3) == "t") continue;
    // To attach one holds up neither readers nor writers of other days, unlike to create it in its place.
    const std::string name = row.text(0, 1);
    connection.run("CREATE TABLE " + name + "(LIKE positions)");
    connection.run("ALTER TABLE positions ATTACH PARTITION " + name + " FOR VALUES FROM ('" + row.text(0, 0) +
                   "') TO ('" + row.text(0, 2) + "')");
    transaction.commit();
  }
}

}  // namespace tarvo::sandbox::postgres
