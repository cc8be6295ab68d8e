#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace tarvo::cli {

/// Exit statuses; scripts rely on the numbers.
enum ExitStatus : int { kDone = 0, kLeft = 1, kUsage = 2, kUnusable = 3, kInterrupted = 130 };

/// Thrown where a command cannot go on; `main` prints the message and exits with the status.
struct Failure {
  ExitStatus status;
  std::string message;
};

/// Sends the SDK's messages to standard error when `shown`; otherwise drops them, all but the last words of a process
/// that has to stop. `watcher`, if any, gets each one too, on any thread.
void installConsole(bool shown, std::function<void(std::string_view)> watcher = {});

/// Prints to standard output.
void print(const std::string& text);

/// A line of the program's own on standard error.
void note(const std::string& text);

/// From here on SIGINT and SIGTERM are only remembered; the second one ends the process as usual.
void watchInterrupts();
bool interrupted();

}  // namespace tarvo::cli
