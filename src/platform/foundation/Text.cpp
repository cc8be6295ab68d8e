#include "platform/foundation/Text.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace tarvo::platform {
namespace {

template <class Number, class... Format>
void appendChars(std::string& out, Number value, Format... format) {
  // The longest fixed double is the smallest denormal: 1 + 2 + 1074 digits.
  char buffer[1100];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, value, format...).ptr;
  out.append(buffer, end);
}

void appendPadded(std::string& out, unsigned value, int width) {
  char buffer[16];
  auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  for (auto digits = end - buffer; digits < width; ++digits) out.push_back('0');
  out.append(buffer, end);
}

void appendNested(std::string& out, const Value& value) {
  if (const std::string* text = value.asString()) {
    out.push_back('"');
    out.append(*text);
    out.push_back('"');
  } else {
    append(out, value);
  }
}

void append(std::string& out, const Array& array) {
  out.push_back('[');
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) out.append(", ");
    appendNested(out, array[i]);
  }
  out.push_back(']');
}

}  // namespace

void append(std::string& out, double value) {
  if (std::isnan(value)) {
    out.append("nan");
  } else if (std::isinf(value)) {
    out.append(value < 0 ? "-inf" : "inf");
  } else {
    appendChars(out, value, std::chars_format::fixed);
  }
}

void append(std::string& out, std::int64_t value) { appendChars(out, value); }
void append(std::string& out, std::uint64_t value) { appendChars(out, value); }

void append(std::string& out, Date value) {
  using namespace std::chrono;
  // Far beyond any calendar the conversion would overflow; a clamped date still prints.
  const Date bounded = std::clamp(value, dateSince1970(-1e11), dateSince1970(2.5e11));
  const auto second = floor<seconds>(bounded);
  const auto day = floor<days>(second);
  const year_month_day date{day};
  const hh_mm_ss time{second - day};
  const int year = static_cast<int>(date.year());
  if (year < 0) out.push_back('-');
  appendPadded(out, static_cast<unsigned>(std::abs(year)), 4);
  out.push_back('-');
  appendPadded(out, static_cast<unsigned>(date.month()), 2);
  out.push_back('-');
  appendPadded(out, static_cast<unsigned>(date.day()), 2);
  out.push_back(' ');
  appendPadded(out, static_cast<unsigned>(time.hours().count()), 2);
  out.push_back(':');
  appendPadded(out, static_cast<unsigned>(time.minutes().count()), 2);
  out.push_back(':');
  appendPadded(out, static_cast<unsigned>(time.seconds().count()), 2);
  out.append(" +0000");
}

void append(std::string& out, const Value& value) {
  if (value.isNull()) {
    out.append("<null>");
  } else if (auto boolean = value.asBool()) {
    append(out, *boolean);
  } else if (auto integer = value.asInteger()) {
    append(out, *integer);
  } else if (auto number = value.asDouble()) {
    append(out, *number);
  } else if (const std::string* text = value.asString()) {
    out.append(*text);
  } else if (const Array* array = value.asArray()) {
    append(out, *array);
  } else {
    append(out, *value.asDictionary());
  }
}

void append(std::string& out, const Dictionary& value) {
  if (value.empty()) {
    out.append("[:]");
    return;
  }
  out.push_back('[');
  bool first = true;
  for (const auto& [key, entry] : value) {
    if (!first) out.append(", ");
    first = false;
    out.push_back('"');
    out.append(key);
    out.append("\": ");
    appendNested(out, entry);
  }
  out.push_back(']');
}

void append(std::string& out, const Error& value) { out.append(value.description()); }

std::string concatenated(std::initializer_list<Piece> pieces) {
  std::string out;
  for (const Piece& piece : pieces) piece.appendTo(out);
  return out;
}

std::string printedOptional(const std::optional<std::string>& text) {
  return text ? "Optional(\"" + *text + "\")" : "nil";
}

std::string errorAndUserInfo(const Error& error) { return concat(error, ", ", error.userInfo); }

std::string Error::description() const {
  std::string out = concat("Error Domain=", domain, " Code=", code, " \"",
                           localizedDescription.empty() ? "(null)" : localizedDescription, "\"");
  if (userInfo.empty()) return out;
  out.append(" UserInfo={");
  bool first = true;
  for (const auto& [key, entry] : userInfo) {
    if (!first) out.append(", ");
    first = false;
    tarvo::platform::append(out, std::string_view(key));
    out.push_back('=');
    tarvo::platform::append(out, entry);
  }
  out.push_back('}');
  return out;
}

}  // namespace tarvo::platform
