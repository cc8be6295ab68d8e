#include "platform/foundation/Utf8.h"

#include <cstdint>
#include <cstring>

namespace tarvo::platform {

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

}  // namespace tarvo::platform
