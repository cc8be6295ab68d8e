#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tarvo::cli {

/// Sends the SDK's messages to standard error when `shown`; otherwise drops them, all but the last words of a process
/// that has to stop. `watcher`, if any, gets each one too, on any thread.
void installConsole(bool shown, std::function<void(std::string_view)> watcher = {});

/// A line of the program's own on standard error.
void note(const std::string& text);

/// From here on SIGINT and SIGTERM are only remembered; the second one ends the process as usual.
void watchInterrupts();
bool interrupted();

}  // namespace tarvo::cli
