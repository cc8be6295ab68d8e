#include "platform/persistence/RowCount.h"

#include <optional>
#include <string>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// Fewer new rows are counted again rather than written down.
constexpr std::int64_t kWorthKeeping = 5000;
/// More new rows are counted with all others: without a condition SQLite goes through the smallest index, which is
/// faster than through a large part of the rows.
constexpr std::int64_t kMostCounted = 50000;

struct Kept {
  std::int64_t rows = 0;
  std::int64_t lastKey = 0;
};

std::string keptName(std::string_view table) { return concat(table, ".rows"); }

/// Nothing kept is no rows up to key 0.
Kept kept(Database& database, std::string_view table) {
  const std::string name = keptName(table);
  Execution row(database,
                "SELECT CAST(value AS INTEGER), CAST(substr(value, instr(value, ' ')) AS INTEGER) "
                "FROM \"_metadata\" WHERE name = ?1");
  row.bind(1, name);
  return row.step() ? Kept{row.integer(0), row.integer(1)} : Kept{};
}

/// Failure changes nothing: the number is then counted again next time.
void keep(Database& database, std::string_view table, const Kept& now) {
  const std::string name = keptName(table);
  const std::string trigger = concat("CREATE TRIGGER IF NOT EXISTS \"", table, "_deleted\" AFTER DELETE ON \"", table,
                                     "\" BEGIN DELETE FROM \"_metadata\" WHERE name = '", name, "'; END");
  if (database.runOnce(trigger, StoreErrorCode::save)) return;
  const std::string value = concat(now.rows, " ", now.lastKey);
  Execution row(database, "REPLACE INTO \"_metadata\" VALUES (?1, ?2)");
  row.bind(1, name);
  row.bind(2, value);
  row.step();
  if (!row.failed()) (void)database.run("COMMIT", StoreErrorCode::save);
}

Result<std::int64_t> number(Database& database, const std::string& sql, std::optional<std::int64_t> parameter = {}) {
  Execution query(database, sql);
  if (parameter) query.bind(1, *parameter);
  if (!query.step()) return query.error(StoreErrorCode::operation, "The rows could not be counted");
  return query.integer(0);
}

}  // namespace

Result<std::int64_t> countRows(Database& database, std::string_view table, bool mayWrite) {
  // What is counted and what is kept are one view of the file: if another process writes in between, keeping fails.
  if (auto error = database.run("BEGIN", StoreErrorCode::operation)) return *error;
  Transaction view(database);

  const Kept known = kept(database, table);
  auto lastKey = number(database, concat("SELECT max(\"_key\") FROM \"", table, "\""));
  if (!lastKey) return lastKey;
  const std::int64_t since = *lastKey - known.lastKey;
  const bool isKept = known.lastKey > 0 && since >= 0 && since <= kMostCounted;
  const std::string all = concat("SELECT count(*) FROM \"", table, "\"");
  auto counted = isKept ? number(database, all + " WHERE \"_key\" > ?1", known.lastKey) : number(database, all);
  if (!counted) return counted;
  const std::int64_t rows = *counted + (isKept ? known.rows : 0);
  if (mayWrite && since > kWorthKeeping) keep(database, table, {rows, *lastKey});
  return rows;
}

}  // namespace tarvo::platform
