#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Value.h>

namespace tarvo {

/// The beginnings of the two lines that tell why a body could not be written.
struct BodyTexts {
  std::string_view problem;
  std::string_view unresolved;
};

/// The values as JSON; absent, with a line in the log, when they cannot be written: the call is dropped.
std::optional<std::string> callBody(const BodyTexts& texts, platform::Dictionary values);

}  // namespace tarvo
