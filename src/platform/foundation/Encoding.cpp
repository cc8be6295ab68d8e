#include "platform/foundation/Encoding.h"

#include <array>
#include <cstdint>
#include <cstring>

#include "platform/foundation/System.h"

namespace tarvo::platform {
namespace {

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kHexDigits = "0123456789ABCDEF";

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t start = 0; start < bytes.size(); start += 3) {
    const std::string_view group = bytes.substr(start, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    for (std::size_t i = 0; i < 4; ++i)
      out.push_back(i <= group.size() ? kBase64Digits[bits >> (18 - 6 * i) & 63U] : '=');
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  for (int padding = 0; padding < 2 && text.ends_with('='); ++padding) text.remove_suffix(1);
  std::string out;
  out.reserve(text.size() / 4 * 3 + 2);
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto value = kBase64Digits.find(text[i]);
    if (value == kBase64Digits.npos) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    // The first character of four completes no byte, each further one does.
    if (i % 4 != 0) out.push_back(static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xffU));
  }
  return out;
}

bool isValidUtf8(std::string_view bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    // Most text is ASCII: eight bytes at once.
    if (std::uint64_t eight = 0; bytes.size() - i >= sizeof eight) {
      std::memcpy(&eight, bytes.data() + i, sizeof eight);
      if ((eight & 0x8080808080808080) == 0) {
        i += sizeof eight;
        continue;
      }
    }
    const auto lead = static_cast<unsigned char>(bytes[i++]);
    if (lead < 0x80) continue;
    int more = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      more = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      more = 2;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      more = 3;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    for (; more > 0; --more) {
      if (i == bytes.size()) return false;
      const auto next = static_cast<unsigned char>(bytes[i++]);
      if (next < low || next > high) return false;
      low = 0x80;
      high = 0xBF;
    }
  }
  return true;
}

bool isPlain(char c, std::string_view marks) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || marks.find(c) != marks.npos;
}

std::string percentEncoded(std::string_view text, std::string_view marks) {
  std::string encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isPlain(c, marks))
      encoded += c;
    else
      encoded += {'%', kHexDigits[byte >> 4], kHexDigits[byte & 0x0FU]};
  }
  return encoded;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::string> randomUuid() {
  std::array<std::uint8_t, 16> bytes{};
  if (!fillWithRandom(bytes)) return std::nullopt;
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kHexDigits[bytes[i] >> 4];
    text += kHexDigits[bytes[i] & 0x0FU];
  }
  return text;
}

std::optional<std::string> upperCaseUuid(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  std::string upper;
  for (const char c : text) {
    const bool dash = upper.size() == 8 || upper.size() == 13 || upper.size() == 18 || upper.size() == 23;
    upper += c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
    if (dash ? c != '-' : kHexDigits.find(upper.back()) == kHexDigits.npos) return std::nullopt;
  }
  return upper;
}

}  // namespace tarvo::platform
