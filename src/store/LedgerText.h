#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/Health.h>
#include <tarvo/platform/Date.h>

#include "store/Gaps.h"

namespace tarvo {

/// What of the ledger outlives the process: one bounded text in the store's metadata (docs/formats.md).
struct LedgerText {
  static constexpr std::string_view kName = "ledger";  ///< of the entry
  static constexpr std::size_t kMostRanges = 64;

  platform::Date written;  ///< the process was alive then
  std::vector<Health::Range> acknowledgedWithoutAnswer;
  std::int64_t removed = 0;
  std::optional<std::int64_t> removedUpTo;
  std::optional<platform::Date> lastTry, lastAcknowledgement;
  DeliveryError lastError = DeliveryError::none;
  std::int64_t triesSince = 0;
  Gaps::List gaps;  ///< the last may be open
  bool operator==(const LedgerText&) const = default;

  std::string text() const;
  /// Absent for what no `text` has given.
  static std::optional<LedgerText> read(std::string_view text);
};

/// Adds a range to ascending ones that neither touch nor overlap, so that this stays true. When there are too many, the
/// two oldest become one, with what lies between them.
void add(std::vector<Health::Range>& ranges, Health::Range range);

}  // namespace tarvo
