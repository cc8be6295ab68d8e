#include "Arguments.h"

#include <charconv>
#include <chrono>
#include <cmath>
#include <ctime>
#include <regex>

namespace tarvo::cli {
namespace {

int integer(const std::ssub_match& digits) { return digits.matched ? std::stoi(digits) : 0; }

/// Seconds east of Greenwich of "Z", "+01:00", "-0530" or nothing; absent when no place on earth has it.
std::optional<int> parseZone(std::string zone) {
  if (zone.empty() || zone == "Z") return 0;
  std::erase(zone, ':');
  const int hours = std::stoi(zone.substr(1, 2)), minutes = std::stoi(zone.substr(3));
  if (hours > 14 || minutes > 59) return std::nullopt;
  return (zone[0] == '-' ? -60 : 60) * (hours * 60 + minutes);
}

}  // namespace

std::optional<double> parseNumber(const std::string& text) {
  double number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

std::optional<platform::Date> parseDate(const std::string& text) {
  if (const auto seconds = parseNumber(text)) return platform::dateSince1970(*seconds);
  static const std::regex form(
      R"((\d{4})-(\d\d)-(\d\d)(?:[T ](\d\d):(\d\d)(?::(\d\d(?:\.\d{1,9})?))?(Z|[+-]\d\d:?\d\d)?)?)");
  std::smatch part;
  if (!std::regex_match(text, part, form)) return std::nullopt;
  const std::chrono::year_month_day day(std::chrono::year(integer(part[1])),
                                        std::chrono::month(static_cast<unsigned>(integer(part[2]))),
                                        std::chrono::day(static_cast<unsigned>(integer(part[3]))));
  const int hour = integer(part[4]), minute = integer(part[5]);
  const double second = part[6].matched ? parseNumber(part[6].str()).value_or(0) : 0;
  const auto zone = parseZone(part[7].str());
  if (!day.ok() || hour > 23 || minute > 59 || second >= 60 || !zone) return std::nullopt;
  const auto days = std::chrono::sys_days(day).time_since_epoch().count();
  return platform::dateSince1970(static_cast<double>(days) * 86400 + hour * 3600 + minute * 60 + second - *zone);
}

std::string isoDate(platform::Date date) {
  const auto moment = static_cast<std::time_t>(std::floor(platform::secondsSince1970(date)));
  std::tm parts = {};
  char text[32] = "";
  if (::gmtime_r(&moment, &parts) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

std::optional<Speed> parseSpeed(const std::string& text) {
  if (text == "max") return Speed{};
  const auto factor = parseNumber(text);
  if (!factor || *factor <= 0) return std::nullopt;
  return Speed{factor};
}

}  // namespace tarvo::cli
