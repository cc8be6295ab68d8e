#pragma once

#include <cstdint>
#include <string_view>

#include "platform/persistence/Database.h"

namespace tarvo::platform {

/// The number of rows of a table, at a cost that does not grow with it: `_metadata` keeps how many there were up to
/// some key, and those behind it are counted. A trigger forgets that as soon as any row is deleted, by whomever; then,
/// and when too many rows have come since, all are counted and the number is kept anew if `mayWrite`.
///
/// Not inside a transaction (an error).
Result<std::int64_t> countRows(Database& database, std::string_view table, bool mayWrite);

}  // namespace tarvo::platform
