#include "platform/persistence/StoredRows.h"

#include "platform/foundation/Text.h"
#include "platform/persistence/NSManagedObjectContext.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

std::optional<double> StoredRow::number(int column) const {
  const Cell cell = row_.cell(column);
  if (cell.isNull()) return std::nullopt;
  return cell.number();
}

std::optional<std::int64_t> StoredRow::integer(int column) const {
  const Cell cell = row_.cell(column);
  if (cell.isNull()) return std::nullopt;
  return cell.integer();
}

std::optional<bool> StoredRow::boolean(int column) const {
  const Cell cell = row_.cell(column);
  if (cell.isNull()) return std::nullopt;
  return cell.integer() != 0;
}

std::optional<Date> StoredRow::date(int column) const {
  const Cell cell = row_.cell(column);
  if (cell.isNull()) return std::nullopt;
  return dateSince1970(cell.number());
}

std::optional<std::string_view> StoredRow::string(int column) const {
  const Cell cell = row_.cell(column);
  if (cell.isNull()) return std::nullopt;
  return cell.text();
}

std::optional<Error> StoredRows::forEach(const std::vector<int>& attributes,
                                         const std::function<bool(const StoredRow&)>& visit, std::size_t limit) const {
  std::optional<Error> failure;
  if (count_ == 0) return failure;
  std::string sql = "SELECT ";
  for (const int attribute : attributes)
    sql += concat(attribute == attributes.front() ? "\"" : ", \"", plan_.column(attribute), "\"");
  const std::string where = plan_.whereClause(way_ == Way::inOrder ? "+" : "");
  sql += concat(" FROM \"", plan_.entity().name, "\"", where, where.empty() ? " WHERE " : " AND ", "\"_key\" <= ?");
  context_->performAndWait([&] {
    auto* store = context_->coordinator().store();
    if (!store) {
      failure = context_->coordinator().whyNoStore("fetch");
      return;
    }
    const bool areInStep = way_ != Way::byIndex && plan_.sortsByCounter() && store->areInStep(plan_.entity());
    sql += plan_.orderClause(areInStep) + (limit > 0 ? " LIMIT ?" : "");
    Execution rows(store->database(), sql);
    const int next = plan_.bind(rows);  // a bare "?" takes the next number
    rows.bind(next, lastKey_);
    if (limit > 0) rows.bind(next + 1, static_cast<std::int64_t>(limit));
    const StoredRow row(rows);
    while (rows.step())
      if (!visit(row)) return;
    if (rows.failed()) failure = rows.error(StoreErrorCode::operation, "The records could not be read");
  });
  return failure;
}

}  // namespace tarvo::platform
