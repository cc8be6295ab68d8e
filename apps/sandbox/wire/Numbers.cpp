#include "sandbox/wire/Numbers.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>

namespace tarvo::sandbox {
namespace {

/// Takes digits from the front of the text.
bool take(std::string_view& text, std::size_t digits, int& number) {
  if (text.size() < digits) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, number);
  if (error != std::errc() || end != text.data() + digits || number < 0) return false;
  text.remove_prefix(digits);
  return true;
}

bool take(std::string_view& text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

/// Column of a key.
constexpr std::size_t at(std::string_view key) {
  std::size_t column = 0;
  while (kPositionKeys[column] != key) ++column;
  return column;
}

}  // namespace

std::optional<double> readDate(std::string_view text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, zoneHour = 0, zoneMinute = 0;
  double fraction = 0;
  if (!take(text, 4, year) || !take(text, '-') || !take(text, 2, month) || !take(text, '-') || !take(text, 2, day) ||
      !take(text, ' ') || !take(text, 2, hour) || !take(text, ':') || !take(text, 2, minute) || !take(text, ':') ||
      !take(text, 2, second))
    return std::nullopt;
  if (text.starts_with('.')) {
    const std::string_view digits = text.substr(0, text.find(' '));
    const auto parsed = readDecimal(digits);
    if (!parsed || digits.find_first_not_of("0123456789", 1) != digits.npos) return std::nullopt;
    fraction = *parsed;
    text.remove_prefix(std::min(text.find(' '), text.size()));
  }
  if (!take(text, ' ')) return std::nullopt;
  const bool isWest = text.starts_with('-');
  if ((!isWest && !text.starts_with('+'))) return std::nullopt;
  text.remove_prefix(1);
  if (!take(text, 2, zoneHour) || !take(text, 2, zoneMinute) || !text.empty()) return std::nullopt;
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60 || zoneMinute > 59) return std::nullopt;
  const auto days = std::chrono::sys_days(date).time_since_epoch().count();
  const int offset = (zoneHour * 60 + zoneMinute) * (isWest ? -60 : 60);
  return static_cast<double>(days) * 86400 + hour * 3600 + minute * 60 + second + fraction - offset;
}

std::optional<double> readDecimal(std::string_view text) {
  double number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

std::optional<derive::Point> readPoint(const Position& position) {
  const auto number = [&](std::string_view key) { return readDecimal(position.values[at(key)]); };
  const auto time = readDate(position.values[at("date_localisation")]);
  const auto lon = number("lon"), lat = number("lat");
  if (!time || !lon || !lat || std::abs(*lon) > 180 || std::abs(*lat) > 90) return std::nullopt;
  return derive::Point{position.id, *time, *lon, *lat, number("acc").value_or(-1), number("speed").value_or(-1)};
}

}  // namespace tarvo::sandbox
