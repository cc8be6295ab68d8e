#include "platform/foundation/Text.h"

#include <algorithm>
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

/// Readings mostly have few decimals. Then nine of them, written as an integer, lead back to the very same value, and
/// are the only ones that do: below 2^51 such quotients lie more than one double apart. Without trailing zeros these
/// are the fewest digits, found in a fraction of the time of the general way. Null for all other values.
char* printFewDecimals(char* out, double value) {
  constexpr double kScale = 1e9;
  const double magnitude = std::fabs(value);
  if (!(magnitude < 2.0e6)) return nullptr;
  const auto scaled = static_cast<std::int64_t>(magnitude * kScale + 0.5);
  if (static_cast<double>(scaled) / kScale != magnitude) return nullptr;
  if (std::signbit(value)) *out++ = '-';
  const auto whole = static_cast<std::uint32_t>(scaled / 1'000'000'000);
  auto fraction = static_cast<std::uint32_t>(scaled % 1'000'000'000);
  out = std::to_chars(out, out + 10, whole).ptr;
  if (fraction == 0) return out;
  *out++ = '.';
  for (std::uint32_t unit = 100'000'000; fraction != 0; unit /= 10) {
    *out++ = static_cast<char>('0' + fraction / unit);
    fraction %= unit;
  }
  return out;
}

}  // namespace

char* print(char* out, double value) {
  if (char* end = printFewDecimals(out, value)) return end;
  if (std::isnan(value)) return printText(out, "nan");
  if (std::isinf(value)) return printText(out, value < 0 ? "-inf" : "inf");
  return std::to_chars(out, out + kLongestPrinted, value, std::chars_format::fixed).ptr;
}

char* print(char* out, std::int64_t value) { return std::to_chars(out, out + kLongestPrinted, value).ptr; }
char* print(char* out, std::uint64_t value) { return std::to_chars(out, out + kLongestPrinted, value).ptr; }

char* print(char* out, Date value) {
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

void TextBuilder::addToText(std::string_view piece) {
  makeRoom();
  text_.append(piece);
}

std::string TextBuilder::finished() {
  makeRoom();
  return std::move(text_);
}

void appendPieces(TextBuilder& out, std::initializer_list<Piece> pieces) {
  for (const Piece& piece : pieces) piece.appendTo(out);
}

std::string concatenated(std::initializer_list<Piece> pieces) {
  TextBuilder out;
  appendPieces(out, pieces);
  return out.finished();
}

}  // namespace tarvo::platform
