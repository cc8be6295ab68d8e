#pragma once

#include <optional>
#include <string_view>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// Reads a time as GPX files carry it: `2019-10-22T14:36:00.000Z`, with a fraction of any length and a zone `Z`,
/// `+02:00`, `+0200` or `+02`; without a zone it is UTC. A blank may stand for the T. Absent for anything else.
std::optional<Date> gpxTime(std::string_view text);

}  // namespace tarvo::platform
