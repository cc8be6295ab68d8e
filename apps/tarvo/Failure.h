#pragma once

#include <string>

namespace tarvo::cli {

/// Exit statuses; scripts rely on the numbers.
enum ExitStatus : int { kDone = 0, kLeft = 1, kUsage = 2, kUnusable = 3, kInterrupted = 130 };

/// Thrown where a command cannot go on; `main` prints the message and exits with the status.
struct Failure {
  ExitStatus status;
  std::string message;
};

}  // namespace tarvo::cli
