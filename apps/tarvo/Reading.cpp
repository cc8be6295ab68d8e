#include "Reading.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include <tarvo/platform/Environment.h>

#include "Console.h"
#include "Failure.h"

namespace tarvo::cli {

void addReadingOptions(CLI::App& command, ReadingOptions& options) {
  command.add_option("--home", options.home, "The folder of the run")->required()->type_name("DIR");
  command.add_flag("--log", options.log, "Show the SDK's messages on standard error");
}

Tarvo openForReading(const ReadingOptions& options) {
  const Home home(options.home);
  home.requireStore();
  installConsole(options.log);
  platform::setHomeDirectory(home.directory());
  Tarvo tarvo;
  if (!tarvo.locationManager().syncStatus().storeAvailable)
    throw Failure{kUnusable, "the store " + home.store().string() + " cannot be used"};
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_GEOPROFILE);
  return tarvo;
}

void print(const std::string& text) { std::cout << text << std::endl; }

}  // namespace tarvo::cli
