/// @file
/// How much of a device's disk is kept.
#pragma once

#include <cstdint>
#include <optional>

#include <tarvo/platform/Date.h>

namespace tarvo {

/// How much of a device's disk the SDK may keep. As constructed: no bounds. What a bound costs: docs/hosting.md.
struct StorageLimits {
  /// Positions that the backend has acknowledged and that were stored longer ago than this go. Numbering goes on behind
  /// the highest number ever given. By the installed clock; the newest by fix time, the one with the highest number and
  /// what was acknowledged without an answer (see Health) always stay; with DeliveryOptions::confirmed nothing is.
  std::optional<platform::Seconds> positionAge{};
  /// While the store's file holds more bytes than this, free pages apart (it does not shrink), the oldest positions
  /// that the backend has acknowledged go. What awaits its upload, or was acknowledged without an answer, always stays,
  /// whatever it takes.
  std::optional<std::uint64_t> storeBytes{};
  /// Log files of days longer ago go, sent or not; today's stays, and one whose upload is under way.
  std::optional<platform::Seconds> logAge{};
  /// While the log files hold more bytes together than this, the oldest go; today's takes no more lines at the bound.
  std::optional<std::uint64_t> logBytes{};

  bool operator==(const StorageLimits&) const = default;
};

}  // namespace tarvo
