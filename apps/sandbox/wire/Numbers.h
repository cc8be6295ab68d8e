#pragma once

#include <optional>
#include <string_view>

#include "sandbox/derive/Records.h"
#include "sandbox/wire/Bodies.h"

namespace tarvo::sandbox {

/// A date of the wire, "2024-06-15 10:00:00 +0000", as seconds since 1970; the seconds may have a fraction, the zone
/// may be any. Absent for anything else.
std::optional<double> readDate(std::string_view text);

/// A finite number, all of the text, as C++ writes it; absent for anything else.
std::optional<double> readDecimal(std::string_view text);

/// Time and place of a position, and what else it says; absent when its date, longitude or latitude is no such.
std::optional<derive::Point> readPoint(const Position& position);

}  // namespace tarvo::sandbox
