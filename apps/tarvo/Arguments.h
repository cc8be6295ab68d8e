#pragma once

#include <optional>
#include <string>

#include <tarvo/platform/Date.h>

namespace tarvo::cli {

/// A finite number, all of the text.
std::optional<double> parseNumber(const std::string& text);

/// Seconds since 1970, or ISO 8601: a day, or a day and a time with or without seconds, fraction and zone; without a
/// zone it is UTC. Absent when the text is neither.
std::optional<platform::Date> parseDate(const std::string& text);

/// "2024-06-15T10:11:12Z", the fraction cut; empty for a moment that no calendar has.
std::string isoDate(platform::Date date);

/// A factor of real time; `factor` is absent for "max". Absent when the text is neither that nor above zero.
struct Speed {
  std::optional<double> factor;
};
std::optional<Speed> parseSpeed(const std::string& text);

}  // namespace tarvo::cli
