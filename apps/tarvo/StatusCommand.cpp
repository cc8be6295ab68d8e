#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <tarvo/HostKeys.h>
#include <tarvo/LocationManager.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "Home.h"

namespace tarvo::cli {
namespace {

struct Options {
  std::string home;
  bool json = false;
  bool log = false;
};

std::string meaning(std::int64_t mode) {
  switch (mode) {
    case -4:
      return " (everything stopped)";
    case 0:
      return " (on the device, in the foreground)";
    case 4:
      return " (on the device)";
    case 8:
      return " (with backend)";
    case 12:
      return " (with backend and predictions)";
    default:
      return "";
  }
}

template <class Value>
nlohmann::ordered_json orNull(const std::optional<Value>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

int printStatus(const Options& options) {
  const Home home(options.home);
  home.requireStore();
  installConsole(options.log);
  platform::setHomeDirectory(home.directory());
  const LocationManager::SyncStatus sync = LocationManager::sharedInstance().syncStatus();
  if (!sync.storeAvailable) throw Failure{kUnusable, "the store " + home.store().string() + " cannot be used"};
  // The mode of the last activation; a fresh process does not take it up.
  std::optional<std::int64_t> mode;
  if (const auto kept = platform::UserDefaults::standard().object(keys::kActivateMode)) mode = kept->asInteger();
  const std::optional<std::string> user = LocationManager::userUUID();

  if (options.json) {
    const nlohmann::ordered_json status = {
        {"mode", orNull(mode)},
        {"uuid", orNull(user)},
        {"stored", sync.stored},
        {"unsent", sync.unsent},
        {"awaiting", sync.awaiting},
        {"acknowledged", sync.acknowledged},
        {"unsaved", sync.unsaved},
        {"last_index", orNull(sync.lastIndex)},
        {"store_bytes", home.storeSize()},
        {"log_bytes", home.logSize()},
    };
    std::cout << status.dump() << std::endl;
    return kDone;
  }
  std::cout << "home          " << home.directory().string() << "\n"
            << "mode          " << (mode ? std::to_string(*mode) + meaning(*mode) : "never activated") << "\n"
            << "user          " << user.value_or("not registered") << "\n"
            << "stored        " << sync.stored << "\n"
            << "unsent        " << sync.unsent << "\n"
            << "awaiting      " << sync.awaiting << "\n"
            << "acknowledged  " << sync.acknowledged << "\n"
            << "unsaved       " << sync.unsaved << "\n"
            << "last index    " << (sync.lastIndex ? std::to_string(*sync.lastIndex) : "none") << "\n"
            << "store         " << home.storeSize() << " bytes\n"
            << "logs          " << home.logSize() << " bytes" << std::endl;
  return kDone;
}

}  // namespace

void addStatusCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("status", "Tells mode, user, counts and sizes of a home");
  command->footer(
      "unsent: never posted; awaiting: posted, not acknowledged; unsaved: in memory alone.\n"
      "Exit status: 0 told; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
  command->add_option("--home", options->home, "The folder of the run")->required()->type_name("DIR");
  command->add_flag("--json", options->json, "Print one JSON object");
  command->add_flag("--log", options->log, "Show the SDK's messages on standard error");
  command->callback([options, &run] { run = [options] { return printStatus(*options); }; });
}

}  // namespace tarvo::cli
