#include "platform/foundation/DefaultsConversion.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

std::string_view withoutLeading(std::string_view text, std::string_view characters) {
  return text.substr(std::min(text.find_first_not_of(characters), text.size()));
}

/// The text from its first digit, point or minus sign on: blanks and a plus sign are skipped.
std::string_view numberStart(std::string_view text) {
  text = withoutLeading(text, " \t\r\n\v\f");
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  return text;
}

std::int64_t leadingInteger(std::string_view text) {
  text = numberStart(text);
  std::int64_t value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (failure != std::errc::result_out_of_range) return value;
  return text.front() == '-' ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

double leadingNumber(std::string_view text) {
  text = numberStart(text);
  // The parser would also take "inf" and "nan".
  const std::string_view magnitude = text.substr(text.starts_with('-') ? 1 : 0);
  if (magnitude.find_first_of("0123456789.") != 0) return 0;
  double value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::int64_t cut(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 0x1p63) return std::numeric_limits<std::int64_t>::max();
  if (value < -0x1p63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

}  // namespace

std::int64_t defaultsInteger(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? 1 : 0;
  if (const std::string* text = value.asString()) return leadingInteger(*text);
  if (auto integer = value.asInteger()) return *integer;
  return cut(value.asDouble().value_or(0));
}

double defaultsNumber(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? 1 : 0;
  if (const std::string* text = value.asString()) return leadingNumber(*text);
  return value.asDouble().value_or(0);
}

bool defaultsBoolean(const Value& value) {
  const std::string* text = value.asString();
  if (text == nullptr) return defaultsNumber(value) != 0;
  std::string_view rest = withoutLeading(*text, " \t\r\n\v\f");
  if (rest.starts_with('+') || rest.starts_with('-')) rest.remove_prefix(1);
  rest = withoutLeading(rest, "0");
  return !rest.empty() && std::string_view("YyTt123456789").find(rest.front()) != std::string_view::npos;
}

std::optional<std::string> defaultsString(const Value& value) {
  if (auto boolean = value.asBool()) return *boolean ? "1" : "0";
  if (const std::string* text = value.asString()) return *text;
  if (value.isNumber()) return concat(value);
  return std::nullopt;
}

}  // namespace tarvo::platform
