#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/DeliveryOptions.h>
#include <tarvo/StorageLimits.h>
#include <tarvo/platform/TransferOptions.h>

namespace CLI {
class App;
}

namespace tarvo::unit {

/// Everything that `tarvo run` can be told, as it holds for a device that nobody watches.
struct UnitOptions {
  // Where fixes come from: one of them, gpsd on this machine if none is given.
  std::optional<std::string> gpsd;  ///< "HOST:PORT"; empty: gpsd's own address
  std::optional<std::string> nmea;  ///< a device, a recording, or "-" for standard input
  unsigned nmeaBaud = 0;            ///< 0: as the line is set
  bool geoclue = false;

  std::string backend;  ///< base address; needed in modes from 8
  bool allowPlainHttp = false;
  std::string clientID, apiKey, bundleID = "org.tarvo.unit";
  std::filesystem::path apiSecretFile;  ///< empty: no secret
  std::filesystem::path home;
  int mode = 8;
  std::string state = "active";  ///< of the application: or "background"
  std::string channel;           ///< origin of a sandbox with a page; empty: none

  DeliveryOptions delivery{.confirmed = true, .dropsProtocolBreaks = true};
  StorageLimits storage;
  platform::TransferOptions transfers;

  std::optional<int> logLevel;  ///< of the log file; absent: as it was
  double uploadInterval = 180;  ///< seconds
  double flushTimeout = 10;     ///< seconds
  bool verbose = false;

  /// What was given for each long option, by file, environment or command line: tells two readings apart.
  std::map<std::string, std::string> given;
};

/// The home of a unit where no option names one: `$STATE_DIRECTORY`, else /var/lib/tarvo.
std::filesystem::path defaultHome();

/// What `fresh` has otherwise than `running` and only a new start of the unit can change, by name.
std::vector<std::string> needRestart(const UnitOptions& running, const UnitOptions& fresh);
/// `running`, with what `fresh` can change while a unit runs.
UnitOptions reloaded(UnitOptions running, const UnitOptions& fresh);

/// Gives `command` all options of a unit; parsing it writes into `options`.
void addUnitOptions(CLI::App& command, UnitOptions& options);

}  // namespace tarvo::unit
