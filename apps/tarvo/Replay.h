#pragma once

#include <optional>
#include <string>

#include "Arguments.h"

namespace tarvo::cli {

struct ReplayOptions {
  std::string trace;
  std::optional<std::string> backend;  ///< base address; no value with `sandbox`
  bool sandbox = false;
  std::optional<std::string> sandboxArchive;  ///< default: in the home
  std::optional<std::string> home;            ///< default: a new temporary folder
  int mode = 8;
  Speed speed;
  std::optional<std::string> clientID, apiKey, apiSecret;
  double deadlineSeconds = 120;  ///< real time for what is left to send after the last fix
  bool json = false;
  bool log = false;
};

/// Plays the trace through the SDK, waits until all of it is acknowledged and prints a summary. Once in a process,
/// on the main thread. Returns the exit status; throws Failure.
int replay(const ReplayOptions& options);

}  // namespace tarvo::cli
