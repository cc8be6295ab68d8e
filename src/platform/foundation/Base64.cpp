#include "platform/foundation/Base64.h"

#include <cstdint>

namespace tarvo::platform {

std::string base64Encode(std::string_view bytes) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
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

}  // namespace tarvo::platform
