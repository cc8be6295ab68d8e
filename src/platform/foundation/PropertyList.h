#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include <tarvo/platform/Value.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// Parses an XML or binary property list. Dates and data come as texts (ISO 8601, Base64).
Result<Value> parsePropertyList(std::string_view bytes);

/// XML form. Null values are left out.
std::string serializePropertyList(const Value& value);

}  // namespace tarvo::platform
