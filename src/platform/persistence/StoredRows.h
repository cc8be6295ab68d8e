#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Error.h"
#include "platform/persistence/Database.h"
#include "platform/persistence/FetchPlan.h"

namespace tarvo::platform {

class NSManagedObjectContext;

/// The row that a pass has come to; columns count from 0 in the order in which the attributes were asked for.
class StoredRow {
 public:
  explicit StoredRow(const Execution& row) : row_(row) {}

  std::optional<double> number(int column) const;
  std::optional<std::int64_t> integer(int column) const;
  std::optional<bool> boolean(int column) const;
  std::optional<Date> date(int column) const;
  std::optional<std::string_view> string(int column) const;  ///< until the visitor returns

 private:
  const Execution& row_;
};

/// The rows that a request matched when it was made, read from the store anew at each pass: a million of them take no
/// memory. What has changed since shows, what was added since does not; unsaved objects are not seen.
///
/// Threads: any; a pass is a block of the context, which the caller waits for. Must not outlive the context.
class StoredRows {
 public:
  std::size_t count() const { return count_; }

  /// Calls `visit` for each row in the request's order until it answers false. A visitor makes no pass of its own.
  /// `limit` (0: none) ends the pass after so many rows. That is cheaper than a visitor that stops, since SQLite then
  /// need not sort the rest. `firstCounter`, for requests in the order of the counter, leaves out rows below it without
  /// looking at them: a pass can go on where one before it ended.
  std::optional<Error> forEach(const std::vector<int>& attributes, const std::function<bool(const StoredRow&)>& visit,
                               std::size_t limit = 0, std::optional<std::int64_t> firstCounter = {}) const;

 private:
  friend class NSManagedObjectContext;
  StoredRows(NSManagedObjectContext& context, FetchPlan plan) : context_(&context), plan_(std::move(plan)) {}

  NSManagedObjectContext* context_;
  FetchPlan plan_;
  PlannedRows::Way way_ = PlannedRows::Way::byIndex;
  std::shared_ptr<const std::string> store_;  ///< its UUID; the rows of another one are others
  std::int64_t lastKey_ = 0;                  ///< of the rows that existed then
  std::size_t count_ = 0;
};

}  // namespace tarvo::platform
