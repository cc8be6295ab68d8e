#pragma once

#include <string>
#include <string_view>

#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// Parses a JSON text, bare values at the top included. Texts over 64 MiB, over 2 Mi values or deeper than 512 are
/// refused, so that no reply can exhaust the stack or the memory. Of equal keys the last wins. Trailing text, comments
/// and NaN are errors (Cocoa 3840).
Result<Value> parseJson(std::string_view text);

/// An array or dictionary at the top, finite numbers, UTF-8 texts, at most 512 deep. Looks at the value alone: no text
/// is made of it.
bool isValidJsonObject(const Value& value);

/// Compact text, keys ascending, doubles in the fewest digits; an error (Cocoa 3851) for what is not a valid JSON
/// object or longer than what `parseJson` takes.
Result<std::string> serializeJson(const Value& value);

}  // namespace tarvo::platform
