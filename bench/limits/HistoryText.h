#pragma once

#include <string_view>

#include "limits/RawStore.h"
#include "limits/TextBuffer.h"

namespace tarvo::bench {

/// All positions of a store as GeoJSON, byte for byte the SDK's. The text lives as long as the buffer.
std::string_view historyText(RawStore& store, TextBuffer& text);

}  // namespace tarvo::bench
