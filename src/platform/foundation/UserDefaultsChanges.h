#pragma once

#include <cstdint>

namespace tarvo::platform {

/// At least 1, and more after each change of the user defaults: what was read behind the same number is still so.
/// Threads: any.
std::uint64_t userDefaultsChanges();

}  // namespace tarvo::platform
