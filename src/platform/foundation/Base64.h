#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo::platform {

/// RFC 4648, standard alphabet, padded, no line breaks.
std::string base64Encode(std::string_view bytes);
/// The bytes of such a text; absent for anything else.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace tarvo::platform
