#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "unit/UnitOptions.h"

namespace tarvo::unit {

/// What is wrong with a file or with the options together: "FILE:LINE: KEY: why".
struct OptionError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Brings together what the command line, the environment and the configuration file say, the first of them before the
/// others. A key of the file is the long name of an option; its value passes the same checks.
///
/// Threads: one. Errors: OptionError.
class OptionReader {
 public:
  static constexpr const char* kUsualFile = "/etc/tarvo/tarvo.toml";

  /// Gives `command`, which has to outlive this, the options of a unit and `--config`.
  explicit OptionReader(CLI::App& command);

  /// Once the command line was parsed, any number of times: reads the environment and the file as they are now.
  UnitOptions read() const;

 private:
  CLI::App& command_;
  const std::unique_ptr<UnitOptions> parsed_;  ///< where the command line's own values go
  std::string file_;                           ///< empty: the usual one, if it is there
};

}  // namespace tarvo::unit
