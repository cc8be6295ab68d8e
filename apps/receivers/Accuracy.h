#pragma once

namespace tarvo::receivers {

/// What a fix is given where its receiver tells no error; as the library's own recorded trips have it. A negative
/// accuracy would make the fix invalid, and neither a region nor a significant change would see it.

/// Metres for each unit of the horizontal dilution of precision. GPS promises ranges within 7.0 m at 95 % (Standard
/// Positioning Service Performance Standard, 5th edition, 2020), 3.6 m at one deviation; as much again for air and
/// reflections makes 5 m.
constexpr double kMetresPerHdop = 5;
/// With neither error nor dilution: that of a dilution of 2, which a usual sky gives. Vertical errors too.
constexpr double kAssumedMetres = 10;

}  // namespace tarvo::receivers
