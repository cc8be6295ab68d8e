/// @file
/// The modes of the SDK.
#pragma once

#include <cstdint>

/// The modes of the SDK. Hosts may use any integer; what a mode switches on is decided by comparing it with these, so
/// the numbers are part of the contract.
namespace tarvo::mode {

inline constexpr std::int64_t kDeactivated = -4;        ///< everything stopped
inline constexpr std::int64_t kLocalForeground = 0;     ///< positions stay on the device, collected in foreground only
inline constexpr std::int64_t kLocalBackground = 4;     ///< background collection too
inline constexpr std::int64_t kBackendBackground = 8;   ///< and upload, push, past trips
inline constexpr std::int64_t kBackendGeoprofile = 12;  ///< and predictions

}  // namespace tarvo::mode
