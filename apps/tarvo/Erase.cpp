// The command that erases what a home holds.

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>

#include "Commands.h"
#include "Console.h"
#include "Home.h"

namespace tarvo::cli {
namespace {

struct EraseOptions {
  std::string home;
  bool isSure = false, log = false;
};

int erase(const EraseOptions& options) {
  const Home home(options.home);
  std::error_code unknown;
  if (!std::filesystem::is_directory(home.directory(), unknown))
    throw Failure{kLeft, "there is no folder " + home.directory().string()};
  if (!options.isSure)
    throw Failure{kUsage, "everything that was collected in " + home.directory().string() +
                              " would go, and the user with it: --yes if that is meant"};
  installConsole(options.log);
  platform::setHomeDirectory(home.directory());
  // What a replay's own backend has received.
  std::error_code notRemoved;
  std::filesystem::remove_all(home.directory() / "sandbox-logs", notRemoved);
  bool isErased = !notRemoved;
  for (const char* end : {"", "-wal", "-shm"}) {
    std::error_code failure;
    std::filesystem::remove(home.sandboxArchive().string() + end, failure);
    isErased = isErased && !failure;
  }
  isErased = Tarvo().eraseEverything() && isErased;
  if (!isErased)
    throw Failure{kUnusable, "not everything is erased in " + home.directory().string() + "; --log tells why"};
  return kDone;
}

}  // namespace

void addEraseCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<EraseOptions>();
  CLI::App* command = app.add_subcommand("erase", "Erases all that a home holds: positions, user, logs and settings");
  command->footer(
      "Info.plist, which describes the host, stays.\n"
      "Exit status: 0 erased; 1 no such folder; 2 wrong usage, or no --yes; 3 not all of it, try again.");
  command->add_option("--home", options->home, "The folder of the run")->required()->type_name("DIR");
  command->add_flag("--yes", options->isSure, "Nobody is asked");
  command->add_flag("--log", options->log, "Show the SDK's messages on standard error");
  command->callback([options, &run] { run = [options] { return erase(*options); }; });
}

}  // namespace tarvo::cli
