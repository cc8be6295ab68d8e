#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tarvo/platform/Value.h>

namespace tarvo::platform {

// How user defaults read a stored value as another type. Pure functions; what does not convert is 0, false or absent.

/// Texts give their leading number ("12abc" is 12), doubles lose their fraction, all within the range of 64 bits.
std::int64_t defaultsInteger(const Value& value);
double defaultsNumber(const Value& value);
/// Numbers are true unless 0; texts when they begin with Y, y, T, t or, after sign and zeros, with a digit 1 to 9.
bool defaultsBoolean(const Value& value);
/// Texts and numbers; a Boolean gives "1" or "0".
std::optional<std::string> defaultsString(const Value& value);

}  // namespace tarvo::platform
