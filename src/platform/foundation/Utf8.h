#pragma once

#include <string_view>

namespace tarvo::platform {

/// Whether the bytes are well-formed UTF-8 (Unicode 15, table 3-7): no overlong forms, no surrogates.
bool isValidUtf8(std::string_view bytes);

}  // namespace tarvo::platform
