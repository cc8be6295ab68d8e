/// @file
/// Where messages go.
#pragma once

#include <functional>
#include <string_view>

#include <tarvo/Export.h>

namespace tarvo::platform {

/// Receives every message verbatim, one call each. May be called from any thread, several at a time, and
/// from the midst of the library's work: it must not call back into the library. An exception that leaves it ends the
/// process.
using SystemLogSink = std::function<void(std::string_view message)>;

/// Replaces the console (standard error) as the place where messages go; an empty sink restores it.
/// Threads: any; set it before the library is used, a call in flight may still reach the old one.
TARVO_API void setSystemLogSink(SystemLogSink sink);

/// Gives the message to the sink or, without one, writes a line to the console: local time, program, process and
/// thread, then the message as it is. Threads: any; lines of the console are never interleaved. Empty messages are
/// dropped.
TARVO_API void NSLog(std::string_view message);

}  // namespace tarvo::platform
