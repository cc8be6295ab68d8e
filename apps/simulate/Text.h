#pragma once

#include <cstdint>
#include <string>

/// How numbers and moments are written: the same text on every machine, without a locale.
namespace tarvo::simulation {

/// With so many decimals, and no minus before a zero.
std::string fixed(double value, int decimals);

std::string twoDigits(std::int64_t number);

/// ISO 8601, UTC, of ms since 1970; with three decimals where it is no whole second.
std::string moment(std::int64_t ms);

/// A course that is printed with one decimal lies from 0 to just below 360.
double turned(double course);

}  // namespace tarvo::simulation
