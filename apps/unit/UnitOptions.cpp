#include "unit/UnitOptions.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <set>

namespace tarvo::unit {
namespace {

using platform::Seconds;

/// Of a number with or without its unit; to be asked before what multiplies with the unit, so given after it.
CLI::Validator notNegative() {
  return {[](const std::string& text) {
            const double number = std::strtod(text.c_str(), nullptr);
            return std::isfinite(number) && number >= 0 ? std::string() : text + " is neither 0 nor above";
          },
          ""};
}

/// Seconds, or a number with its unit: "90", "12h", "30d".
const std::map<std::string, double> kUnits = {{"s", 1}, {"min", 60}, {"h", 3600}, {"d", 86400}};

/// What `reloaded` takes over.
const std::set<std::string> kLive = {"confirmed",
                                     "drop-protocol-breaks",
                                     "least-pass-interval",
                                     "metered",
                                     "position-age",
                                     "metered-bytes-per-day",
                                     "store-bytes",
                                     "log-age",
                                     "log-bytes",
                                     "log-level",
                                     "upload-interval",
                                     "flush-timeout",
                                     "verbose",
                                     "state"};

template <class Value, class Target>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Target& target, const std::string& meaning) {
  return command.add_option_function<Value>(
      name, [&target](const Value& value) { target = Target(value); }, meaning);
}

template <class Target>
CLI::Option* addSpan(CLI::App& command, const std::string& name, Target& target, const std::string& meaning) {
  return addNumber<double>(command, name, target, meaning)
      ->transform(CLI::AsNumberWithUnit(kUnits, CLI::AsNumberWithUnit::CASE_SENSITIVE).description(""))
      ->transform(notNegative())
      ->type_name("SPAN");
}

CLI::Option* addBytes(CLI::App& command, const std::string& name, std::optional<std::uint64_t>& target,
                      const std::string& meaning) {
  return addNumber<std::uint64_t>(command, name, target, meaning)
      ->transform(CLI::AsSizeValue(true).description(""))
      ->transform(notNegative())
      ->type_name("BYTES");
}

CLI::Option* addFile(CLI::App& command, const std::string& name, std::filesystem::path& target,
                     const std::string& meaning) {
  return command
      .add_option_function<std::string>(
          name, [&target](const std::string& file) { target = file; }, meaning)
      ->type_name("FILE");
}

void addReceivers(CLI::App& command, UnitOptions& options) {
  auto* const gpsd =
      command
          .add_option_function<std::string>(
              "--gpsd", [&options](const std::string& at) { options.gpsd = at == "true" ? std::string() : at; },
              "Fixes of a gpsd; the default, at localhost:2947")
          ->expected(0, 1)
          ->type_name("[HOST:PORT]");
  auto* const nmea =
      command
          .add_option("--nmea", options.nmea, "Fixes of an NMEA 0183 line: a serial device, a recording, - for stdin")
          ->type_name("PATH");
  auto* const geoclue = command.add_flag("--geoclue", options.geoclue, "Fixes of the desktop's location service");
  command.add_option("--nmea-baud", options.nmeaBaud, "Speed of the serial device [as it is set]")->type_name("N");
  gpsd->excludes(nmea)->excludes(geoclue);
  nmea->excludes(geoclue);
}

void addBackend(CLI::App& command, UnitOptions& options) {
  command.add_option("--backend", options.backend, "Base address of the backend, ending in /api")->type_name("URL");
  command.add_flag("--allow-plain-http", options.allowPlainHttp,
                   "Also plain http to other machines than this one: everything can be read on the way");
  command.add_option("--client-id", options.clientID, "Client identifier at the backend")->type_name("TEXT");
  command.add_option("--api-key", options.apiKey, "API key at the backend")->type_name("TEXT");
  addFile(command, "--api-secret-file", options.apiSecretFile,
          "Holds the secret of the API key [the credential api-secret of systemd]");
  command.add_option("--bundle-id", options.bundleID, "Name of this application, sent with each position")
      ->type_name("TEXT")
      ->capture_default_str();
  command.add_option("--mode", options.mode, "Activation mode: 0 and 4 keep positions here, 8 and 12 upload them")
      ->check(CLI::IsMember({0, 4, 8, 12}))
      ->type_name("N")
      ->capture_default_str();
  command
      .add_option("--state", options.state,
                  "active: each 20 m are a position; background: on battery only what is significant")
      ->check(CLI::IsMember({"active", "background"}))
      ->type_name("TEXT")
      ->capture_default_str();
  command.add_option("--channel", options.channel, "A sandbox whose page may send pushes here and is told how this is")
      ->type_name("URL");
}

void addDelivery(CLI::App& command, UnitOptions& options) {
  DeliveryOptions& delivery = options.delivery;
  command.add_flag("--confirmed,!--no-confirmed", delivery.confirmed,
                   "Only a complete answer of the backend acknowledges positions [on]");
  command.add_flag("--drop-protocol-breaks,!--no-drop-protocol-breaks", delivery.dropsProtocolBreaks,
                   "An answer that breaks the protocol is dropped and does not end the process [on]");
  addSpan(command, "--least-pass-interval", delivery.leastPassInterval, "Least time from one batch to the next [0]");
  command.add_flag("--metered", delivery.networkIsMetered, "The network costs by the byte");
  addBytes(command, "--metered-bytes-per-day", delivery.meteredBytesPerDay,
           "Bytes that batches may cost a day on a metered network [no bound]");
  addSpan(command, "--upload-interval", options.uploadInterval,
          "What is unsent although nothing happens is tried again so often [180]");
  addSpan(command, "--flush-timeout", options.flushTimeout, "At the end, time for what is unsent [10]");
}

void addStorage(CLI::App& command, UnitOptions& options) {
  StorageLimits& storage = options.storage;
  addSpan(command, "--position-age", storage.positionAge, "Acknowledged positions that are older go [never]");
  addBytes(command, "--store-bytes", storage.storeBytes, "Above it the oldest acknowledged positions go [no bound]");
  addSpan(command, "--log-age", storage.logAge, "Log files that are older go [never]");
  addBytes(command, "--log-bytes", storage.logBytes, "Above it the oldest log files go [no bound]");
  command.add_option("--log-level", options.logLevel, "Of the log file: 10 switches it off, 1 to 9 on [as it was]")
      ->check(CLI::Range(0, 10).description(""))
      ->type_name("N");
  command.add_flag("--verbose", options.verbose, "Prints what the SDK says, places and keys included");
}

void addTransfers(CLI::App& command, UnitOptions& options) {
  platform::TransferOptions& transfers = options.transfers;
  addFile(command, "--ca-file", transfers.caFile,
          "The authorities that may vouch for the backend, and no others (PEM)");
  addFile(command, "--client-certificate", transfers.clientCertificateFile, "Shown to a backend that asks (PEM)");
  addFile(command, "--client-key", transfers.clientKeyFile, "Its key [in the file of the certificate] (PEM)");
  command.add_option("--proxy", transfers.proxy, "Proxy for every host but this machine")->type_name("URL");
  command.add_option("--interface", transfers.networkInterface, "The interface by which connections leave")
      ->type_name("NAME");
}

}  // namespace

std::filesystem::path defaultHome() {
  const char* const state = std::getenv("STATE_DIRECTORY");
  const std::string given = state != nullptr ? state : "";
  const std::string first = given.substr(0, given.find(':'));
  return first.empty() ? "/var/lib/tarvo" : first;
}

std::vector<std::string> needRestart(const UnitOptions& running, const UnitOptions& fresh) {
  std::set<std::string> names;
  for (const auto* each : {&running, &fresh})
    for (const auto& [name, text] : each->given)
      if (!kLive.contains(name)) names.insert(name);
  std::erase_if(names, [&](const std::string& name) {
    const auto now = running.given.find(name), then = fresh.given.find(name);
    return now != running.given.end() && then != fresh.given.end() && now->second == then->second;
  });
  return {names.begin(), names.end()};
}

UnitOptions reloaded(UnitOptions running, const UnitOptions& fresh) {
  running.delivery = fresh.delivery;
  running.storage = fresh.storage;
  running.state = fresh.state;
  running.logLevel = fresh.logLevel;
  running.uploadInterval = fresh.uploadInterval;
  running.flushTimeout = fresh.flushTimeout;
  running.verbose = fresh.verbose;
  return running;
}

void addUnitOptions(CLI::App& command, UnitOptions& options) {
  command
      .add_option_function<std::string>(
          "--home", [&options](const std::string& folder) { options.home = folder; },
          "Holds everything of the unit [$STATE_DIRECTORY, else /var/lib/tarvo]")
      ->type_name("DIR");
  addReceivers(command, options);
  addBackend(command, options);
  addDelivery(command, options);
  addStorage(command, options);
  addTransfers(command, options);
}

}  // namespace tarvo::unit
