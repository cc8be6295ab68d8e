#include "platform/persistence/RowFetch.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/foundation/Text.h"
#include "platform/persistence/RowCodec.h"

namespace tarvo::platform {

using Store = NSPersistentStoreCoordinator::Store;

namespace {

/// Fills what `found` lacks: the objects of rows that nobody uses, each at the place of its key.
std::optional<Error> readMissing(Store& store, EntityObjects& objects, const FetchPlan& plan,
                                 const std::vector<std::int64_t>& keys, Objects& found) {
  std::string sql;
  RowCodec codec(plan.entity(), plan.attributes());
  for (std::size_t first = 0; first < keys.size(); ++first) {
    if (found[first]) continue;
    // Rows mostly stand in the file in the order of the answer: a run of neighbours is one pass, upwards or downwards.
    std::size_t last = first;
    const std::int64_t step = first + 1 < keys.size() && keys[first + 1] < keys[first] ? -1 : 1;
    while (last + 1 < keys.size() && !found[last + 1] && keys[last + 1] == keys[last] + step) ++last;
    if (sql.empty()) sql = concat(codec.selectText(), " WHERE \"_key\" BETWEEN ?1 AND ?2");
    Execution rows(store.database(), sql);
    rows.bind(1, std::min(keys[first], keys[last]));
    rows.bind(2, std::max(keys[first], keys[last]));
    while (rows.step()) {
      const std::int64_t key = rows.integer(0);
      auto object = objects.registerNew(key, plan.attributes());
      codec.read(rows, *object);
      found[first + static_cast<std::size_t>((key - keys[first]) * step)] = std::move(object);
    }
    if (rows.failed()) return rows.error(StoreErrorCode::operation, "The records could not be read");
    first = last;
  }
  std::erase(found, nullptr);  // another process may have deleted a row meanwhile
  return std::nullopt;
}

}  // namespace

Result<Objects> fetchRows(Store& store, EntityObjects& objects, const FetchPlan& plan, std::size_t limit) {
  std::vector<std::int64_t> keys;
  Objects found;
  keys.reserve(limit);
  found.reserve(limit);
  {
    // With conditions an index gives the order, or few rows are sorted.
    const bool areInStep = !plan.hasConditions() && plan.sortsByCounter() && store.areInStep(objects.entity());
    std::string sql =
        concat("SELECT \"_key\" FROM \"", objects.entity().name, "\"", plan.whereClause(), plan.orderClause(areInStep));
    if (limit > 0) sql += " LIMIT ?";
    Execution rows(store.database(), sql);
    const int next = plan.bind(rows);
    // Each object with unsaved changes or deletes drops at most one row of the answer.
    if (limit > 0)
      rows.bind(next, static_cast<std::int64_t>(limit + objects.changed().size() + objects.deleted().size()));
    while ((limit == 0 || found.size() < limit) && rows.step()) {
      const std::int64_t key = rows.integer(0);
      auto object = objects.registered(key);
      if (object && EntityObjects::isPending(*object)) continue;
      keys.push_back(key);
      found.push_back(std::move(object));
    }
    if (rows.failed()) return rows.error(StoreErrorCode::operation, "The records could not be read");
  }
  if (auto error = readMissing(store, objects, plan, keys, found)) return *error;
  return found;
}

}  // namespace tarvo::platform
