#include "Arguments.h"

#include <charconv>
#include <cmath>
#include <ctime>

namespace tarvo::cli {

std::optional<double> parseNumber(const std::string& text) {
  double number = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end || !std::isfinite(number)) return std::nullopt;
  return number;
}

std::optional<platform::Date> parseDate(const std::string& text) {
  if (const auto seconds = parseNumber(text)) return platform::dateSince1970(*seconds);
  // What may be left out is put in: the time of day, or only its seconds.
  std::string whole = text;
  if (whole.size() == 10)
    whole += "T00:00:00";
  else if (whole.size() >= 16 && whole.substr(16, 1) != ":")
    whole.insert(16, ":00");
  return platform::parseTimestamp(whole);
}

std::string isoDate(platform::Date date) {
  const double seconds = std::floor(platform::secondsSince1970(date));
  if (!(std::abs(seconds) < 0x1p63)) return {};
  const auto moment = static_cast<std::time_t>(seconds);
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
