#pragma once

#include <cstddef>
#include <cstdint>
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
  std::optional<std::string> channel;         ///< origin of a sandbox that runs by itself
  std::optional<std::string> script;          ///< events beside the trace
  std::optional<std::string> home;            ///< default: a new temporary folder
  int mode = 8;
  Speed speed;
  std::optional<std::string> clientID, apiKey, apiSecret;
  bool confirmed = false;        ///< DeliveryOptions::confirmed; else as the property list says
  double deadlineSeconds = 120;  ///< real time for what is left to send after the last fix
  bool json = false;
  bool log = false;
  bool verbose = false;
};

/// What a replay hands to the process that goes on with it after a relaunch.
struct Relaunch {
  std::size_t events = 0;  ///< of the script, that have happened
  std::size_t fixes = 0;   ///< of the trace, that were played
  std::uint64_t delivered = 0, batches = 0;
  std::int64_t unsaved = 0;  ///< positions that were lost with earlier processes
  double seconds = 0;        ///< real time so far
  int battery = 1;           ///< state and level
  double batteryLevel = 1;
  std::string home;
  int sandboxPort = 0;  ///< 0: no sandbox

  /// What the process before has left for this one; absent in the first process of a replay.
  static std::optional<Relaunch> take();

  /// Puts a new process with the same command line into the place of this one, which ends as if killed. Returns only
  /// by throwing Failure.
  [[noreturn]] void launch() const;
};

/// Plays the trace through the SDK, waits until all of it is acknowledged and prints a summary. Once in a process,
/// on the main thread; a relaunch in the script puts a new process into the place of this one. Returns the exit
/// status; throws Failure.
int replay(const ReplayOptions& options);

}  // namespace tarvo::cli
