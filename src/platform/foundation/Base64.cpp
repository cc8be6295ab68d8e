#include "platform/foundation/Base64.h"

#include <cstdint>

namespace tarvo::platform {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t start = 0; start < bytes.size(); start += 3) {
    const std::string_view group = bytes.substr(start, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i)
      bits = bits << 8 | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
    for (std::size_t i = 0; i < 4; ++i) out.push_back(i <= group.size() ? kAlphabet[bits >> (18 - 6 * i) & 63U] : '=');
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
    const auto value = kAlphabet.find(text[i]);
    if (value == kAlphabet.npos) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    // The first character of four completes no byte, each further one does.
    if (i % 4 != 0) out.push_back(static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xffU));
  }
  return out;
}

}  // namespace tarvo::platform
