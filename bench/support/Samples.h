#pragma once

#include <cstdint>
#include <string_view>

#include <tarvo/platform/CLLocation.h>

namespace tarvo::bench {

// The positions that all stores hold and all figures add: number `i` is the same everywhere. Coordinates have all
// their digits, the most that a receiver can give, because the length of a number decides what writing it costs.

inline constexpr double kStart = 1718445600;  // 2024-06-15 10:00:00 UTC

inline constexpr std::string_view kUser = "3f2504e0-4f89-41d3-9a0c-0305e82c3301";
inline constexpr std::string_view kVendor = "9c858901-8a57-4791-81fe-4c455b099bc9";
inline constexpr std::string_view kAppName = "ios:org.example.host";
inline constexpr std::string_view kActivity = "unknown";
inline constexpr std::string_view kMethod = "sls";

inline std::string_view serviceActionOf(std::int64_t i) { return i % 500 == 499 ? "loc_disabled" : "loc_changed"; }

/// One fix a second along a line.
inline platform::CLLocation fix(std::int64_t i) {
  const double step = static_cast<double>(i % 1000000);
  platform::CLLocation fix;
  fix.coordinate = {47.5 + step * 1.2345678901e-6, 11.5 + step * 2.3456789012e-6};
  fix.altitude = 500 + static_cast<double>(i % 97) * 0.1;
  fix.horizontalAccuracy = 5 + static_cast<double>(i % 13) * 0.5;
  fix.verticalAccuracy = 8;
  fix.course = static_cast<double>(i % 359) + 0.25;
  fix.speed = 10 + static_cast<double>(i % 71) * 0.1;
  fix.timestamp = platform::dateSince1970(kStart + static_cast<double>(i) + 0.125);
  return fix;
}

/// When position `i` was stored.
inline double storedAt(std::int64_t i) { return kStart + static_cast<double>(i) + 0.375; }

}  // namespace tarvo::bench
