#include "platform/foundation/Text.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace tarvo::platform {
namespace {

char* printText(char* out, std::string_view text) {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

char* printTwoDigits(char* out, unsigned value) {
  out[0] = static_cast<char>('0' + value / 10);
  out[1] = static_cast<char>('0' + value % 10);
  return out + 2;
}

/// The free-format algorithm of Steele and White (1990), in whole numbers: digits of the fraction, until what is left
/// of it, or lacks to the next digit, is less than half the way to the neighbouring doubles. Magnitudes of readings fit
/// into 64 bits, 2^-7 to below 2^21; null for all others.
char* printReading(char* out, double value) {
  constexpr int kMantissaBits = 52;
  constexpr std::uint64_t kHiddenBit = std::uint64_t{1} << kMantissaBits;
  const auto bits = std::bit_cast<std::uint64_t>(value);
  const int exponent = static_cast<int>(bits >> kMantissaBits & 0x7FF) - 1023;
  if (exponent < -7 || exponent > 20) return nullptr;
  const std::uint64_t significand = (bits & (kHiddenBit - 1)) | kHiddenBit;
  const int fractionBits = kMantissaBits - exponent;
  // In units of half the way, which grows like the rest from digit to digit.
  const int unitBits = fractionBits + 1;
  const std::uint64_t one = std::uint64_t{1} << unitBits;
  std::uint64_t rest = significand << 1 & (one - 1);
  if (value < 0) *out++ = '-';
  out = std::to_chars(out, out + 7, static_cast<std::uint32_t>(significand >> fractionBits)).ptr;
  if (rest == 0) return out;
  *out++ = '.';
  for (std::uint64_t half = 10;; half *= 10) {
    rest *= 10;
    const std::uint64_t digit = rest >> unitBits;
    rest &= one - 1;
    const bool endsBelow = rest < half;
    const bool endsAbove = rest + half > one;
    if (endsBelow || endsAbove) {
      // The nearer of the two; halfway the even one.
      const bool isNearerAbove = endsAbove && (!endsBelow || 2 * rest + (digit & 1U) > one);
      *out++ = static_cast<char>('0' + digit + (isNearerAbove ? 1 : 0));
      return out;
    }
    *out++ = static_cast<char>('0' + digit);
  }
}

void appendNested(TextBuilder& out, const Value& value) {
  if (const std::string* text = value.asString()) {
    out.append('"');
    out.append(*text);
    out.append('"');
  } else {
    append(out, value);
  }
}

void append(TextBuilder& out, const Array& array) {
  out.append('[');
  for (std::size_t i = 0; i < array.size(); ++i) {
    if (i > 0) out.append(", ");
    appendNested(out, array[i]);
  }
  out.append(']');
}

}  // namespace

char* TextBuilder::print(char* out, double value) {
  if (char* end = printReading(out, value)) return end;
  if (std::isnan(value)) return printText(out, "nan");
  if (std::isinf(value)) return printText(out, value < 0 ? "-inf" : "inf");
  return std::to_chars(out, out + kLongestPrinted, value, std::chars_format::fixed).ptr;
}

char* TextBuilder::print(char* out, std::int64_t value) { return std::to_chars(out, out + kLongestPrinted, value).ptr; }
char* TextBuilder::print(char* out, std::uint64_t value) {
  return std::to_chars(out, out + kLongestPrinted, value).ptr;
}

char* TextBuilder::print(char* out, Date value) {
  using namespace std::chrono;
  // Far beyond any calendar the conversion would overflow; a clamped date still prints, and its year has four digits.
  const double given = secondsSince1970(value);
  const double bounded = given > -1e11 ? std::min(given, 2.5e11) : -1e11;
  const auto second = sys_seconds(seconds(static_cast<std::int64_t>(std::floor(bounded))));
  const auto day = floor<days>(second);
  const year_month_day date{day};
  const auto secondOfDay = static_cast<unsigned>((second - day).count());
  const int year = static_cast<int>(date.year());
  if (year < 0) *out++ = '-';
  out = printTwoDigits(out, static_cast<unsigned>(std::abs(year)) / 100);
  out = printTwoDigits(out, static_cast<unsigned>(std::abs(year)) % 100);
  *out++ = '-';
  out = printTwoDigits(out, static_cast<unsigned>(date.month()));
  *out++ = '-';
  out = printTwoDigits(out, static_cast<unsigned>(date.day()));
  *out++ = ' ';
  out = printTwoDigits(out, secondOfDay / 3600);
  *out++ = ':';
  out = printTwoDigits(out, secondOfDay / 60 % 60);
  *out++ = ':';
  out = printTwoDigits(out, secondOfDay % 60);
  return printText(out, " +0000");
}

void TextBuilder::makeRoom() {
  text_.append(buffer_.data(), next_);
  next_ = buffer_.data();
}

void TextBuilder::appendToText(std::string_view piece) {
  makeRoom();
  text_.append(piece);
}

std::string TextBuilder::finished() {
  makeRoom();
  return std::move(text_);
}

void append(TextBuilder& out, std::initializer_list<Piece> pieces) {
  for (const Piece& piece : pieces) piece.appendTo(out);
}

std::string concat(std::initializer_list<Piece> pieces) {
  TextBuilder out;
  append(out, pieces);
  return out.finished();
}

void append(TextBuilder& out, const Value& value) {
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

void append(TextBuilder& out, const Dictionary& value) {
  if (value.empty()) {
    out.append("[:]");
    return;
  }
  out.append('[');
  bool first = true;
  for (const auto& [key, entry] : value) {
    out.append(first ? "\"" : ", \"");
    first = false;
    out.append(key);
    out.append("\": ");
    appendNested(out, entry);
  }
  out.append(']');
}

void append(TextBuilder& out, const Error& value) {
  append(out, "Error Domain=", value.domain, " Code=", value.code, " \"",
         value.localizedDescription.empty() ? std::string_view("(null)") : value.localizedDescription, "\"");
  if (value.userInfo.empty()) return;
  out.append(" UserInfo={");
  bool first = true;
  for (const auto& [key, entry] : value.userInfo) {
    if (!first) out.append(", ");
    first = false;
    out.append(key);
    out.append('=');
    append(out, entry);
  }
  out.append('}');
}

std::string Error::description() const { return concat(*this); }

std::string printedOptional(const std::optional<std::string>& text) {
  return text ? "Optional(\"" + *text + "\")" : "nil";
}

std::string errorAndUserInfo(const Error& error) { return concat(error, ", ", error.userInfo); }

}  // namespace tarvo::platform
