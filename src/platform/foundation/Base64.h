#pragma once

#include <string>
#include <string_view>

namespace tarvo::platform {

/// RFC 4648, standard alphabet, padded, no line breaks.
std::string base64Encode(std::string_view bytes);

}  // namespace tarvo::platform
