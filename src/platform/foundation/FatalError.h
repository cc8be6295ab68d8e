#pragma once

#include <string_view>

namespace tarvo::platform {

/// Ends the process for a programming error or a missing resource that the build guarantees: writes
/// "Fatal error: " and the message to the system log, then aborts. Threads: any.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace tarvo::platform
