#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include <tarvo/Tarvo.h>

#include "unit/OptionReader.h"

namespace tarvo::unit {

/// A unit cannot start: the home or its store cannot be used, or another process writes to it.
struct UnitError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// What the program around a unit adds to it.
struct Host {
  /// Throws OptionError for what `connect` could not use; before anything else happens.
  std::function<void(const UnitOptions&)> check;
  /// What `tarvo status --json` prints, a JSON object; on the main thread.
  std::function<std::string(const Tarvo&, const std::filesystem::path& home)> status;
  /// Opens the channel to a sandbox, if one was asked for; what it answers is kept to the end of the unit.
  std::function<std::shared_ptr<void>(const Tarvo&, const UnitOptions&, const std::string& secret)> connect;
};

/// A whole unit: runs from start to end on the main thread. Receivers have threads of their own, and so has the SDK.
///
/// Returns the exit status: 0 after SIGTERM or SIGINT (a second one ends the process at once), and at the end of a
/// recording. Once in a process. Errors: UnitError and OptionError before anything was collected.
int runUnit(const OptionReader& reader, const Host& host);

}  // namespace tarvo::unit
