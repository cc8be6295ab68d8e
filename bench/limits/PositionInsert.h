#pragma once

#include <cstdint>

#include "limits/RawStore.h"

namespace tarvo::bench {

/// Writes sample positions: one prepared statement, a transaction of its own for each unless the caller began one.
class PositionInsert {
 public:
  explicit PositionInsert(RawStore& store);

  /// Position `i`, with `i` as its index; not posted yet if `unsent`, else acknowledged.
  void insert(std::int64_t i, bool unsent);

 private:
  RawStatement statement_;
};

}  // namespace tarvo::bench
