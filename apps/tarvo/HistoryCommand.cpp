#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>

#include "Arguments.h"
#include "Commands.h"
#include "Console.h"
#include "Failure.h"
#include "Home.h"

namespace tarvo::cli {
namespace {

struct Options {
  std::string home;
  std::optional<platform::Date> since, until;
  std::string geometry = Tarvo::GEOJSON_LINESTRING;
  bool log = false;
};

int printHistory(const Options& options) {
  const Home home(options.home);
  home.requireStore();
  installConsole(options.log);
  platform::setHomeDirectory(home.directory());
  Tarvo tarvo;
  if (!tarvo.locationManager().syncStatus().storeAvailable)
    throw Failure{kUnusable, "the store " + home.store().string() + " cannot be used"};
  // Reading needs the mode, not an activation: that would store a position.
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_GEOPROFILE);
  const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, options.since, options.until);
  const auto text = history ? history->toGeoJSON(options.geometry) : std::nullopt;
  if (!text) throw Failure{kLeft, "no positions in that span of time"};
  std::cout << *text << std::endl;
  if (!std::cout) throw Failure{kUnusable, "standard output cannot be written"};
  return kDone;
}

void addDate(CLI::App& command, const std::string& name, std::optional<platform::Date>& date,
             const std::string& meaning) {
  command
      .add_option_function<std::string>(
          name,
          [name, &date](const std::string& text) {
            date = parseDate(text);
            if (!date) throw CLI::ValidationError(name, "neither ISO 8601 nor seconds since 1970: " + text);
          },
          meaning)
      ->type_name("TIME");
}

}  // namespace

void addHistoryCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("history", "Prints the positions that a home holds, as GeoJSON");
  command->footer(
      "TIME is ISO 8601 (2024-06-15, 2024-06-15T10:11:12Z; UTC unless it has a zone) or seconds since 1970.\n"
      "Exit status: 0 printed; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
  command->add_option("--home", options->home, "The folder of the run")->required()->type_name("DIR");
  addDate(*command, "--since", options->since, "Only positions stored at this time or later");
  addDate(*command, "--until", options->until, "Only positions stored at this time or earlier");
  command->add_option("--geometry", options->geometry, "Geometry of the features")
      ->check(CLI::IsMember({Tarvo::GEOJSON_LINESTRING, Tarvo::GEOJSON_MULTIPOINT}))
      ->capture_default_str();
  command->add_flag("--log", options->log, "Show the SDK's messages on standard error");
  command->callback([options, &run] { run = [options] { return printHistory(*options); }; });
}

}  // namespace tarvo::cli
