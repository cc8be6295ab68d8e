/// @file
/// Moments and spans of time.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include <tarvo/Export.h>

namespace tarvo::platform {

/// Seconds as a double: spans of time are never rounded to whole milliseconds.
using Seconds = std::chrono::duration<double>;

/// A moment of wall time, UTC, counted from 1970-01-01 in unrounded seconds.
using Date = std::chrono::time_point<std::chrono::system_clock, Seconds>;

/**@{*/
/// A moment from seconds since 1970-01-01 UTC, and back.
constexpr Date dateSince1970(double seconds) { return Date(Seconds(seconds)); }
constexpr double secondsSince1970(Date date) { return date.time_since_epoch().count(); }
/**@}*/

/**@{*/
/// 0001-01-01 and 4001-01-01: the bounds that stand for "no bound".
constexpr Date distantPast() { return dateSince1970(-62135596800.0); }
constexpr Date distantFuture() { return dateSince1970(64092211200.0); }
/**@}*/

/// Reads a moment as ISO 8601 and GPX files write it: `2019-10-22T14:36:00.000Z`, with a fraction of any length and a
/// zone `Z`, `+02:00`, `+0200` or `+02`; without a zone it is UTC. A blank may stand for the T. Absent for anything
/// else.
TARVO_API std::optional<Date> parseTimestamp(std::string_view text);

}  // namespace tarvo::platform
