#include "platform/persistence/StoredRows.h"

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
                                         const std::function<bool(const StoredRow&)>& visit, std::size_t limit,
                                         std::optional<std::int64_t> firstCounter) const {
  std::optional<Error> failure;
  if (count_ == 0) return failure;
  context_->performAndWait([&] {
    auto* store = context_->coordinator().store();
    if (!store || store->uuid() != store_) {
      failure = context_->coordinator().whyNoStore("fetch");
      return;
    }
    // What goes on need not find its first row again by an index and sort all that follow.
    const auto way = firstCounter ? PlannedRows::Way::inOrder : way_;
    PlannedRows rows(store->database(), plan_, way, {attributes, lastKey_, limit, firstCounter});
    while (rows.step())
      if (!visit(StoredRow(rows.row()))) return;
    if (rows.failed()) failure = rows.error(StoreErrorCode::operation, "The records could not be read");
  });
  return failure;
}

}  // namespace tarvo::platform
