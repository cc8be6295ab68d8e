#pragma once

#include <optional>
#include <string>

#include "Arguments.h"

namespace tarvo::cli {

/// Of the sandbox, unless another is given.
inline constexpr const char* kDefaultSecret = "demo-secret";

struct ReplayOptions {
  std::string trace;
  std::optional<std::string> backend;  ///< base address; no value with `sandbox`
  bool sandbox = false;
  std::optional<std::string> sandboxArchive;  ///< default: in the home
  std::optional<std::string> sandboxData;     ///< what it answers downloads with, a JSON file
  std::optional<std::string> script;          ///< events beside the trace
  std::optional<std::string> home;            ///< default: a new temporary folder
  int mode = 8;
  Speed speed;
  std::optional<std::string> clientID, apiKey, apiSecret;
  double deadlineSeconds = 120;  ///< real time for what is left to send after the last fix
  bool json = false;
  bool log = false;
  bool verbose = false;
};

/// Plays the trace through the SDK, waits until all of it is acknowledged and prints a summary. Once in a process,
/// on the main thread; a relaunch in the script puts a new process into the place of this one. Returns the exit
/// status; throws Failure.
int replay(const ReplayOptions& options);

}  // namespace tarvo::cli
