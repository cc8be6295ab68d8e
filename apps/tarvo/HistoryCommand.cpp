#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <tarvo/Tarvo.h>

#include "Arguments.h"
#include "Commands.h"
#include "Failure.h"
#include "Reading.h"

namespace tarvo::cli {
namespace {

struct Options : ReadingOptions {
  std::string format = "raw";
  std::optional<platform::Date> since, until;
  std::string geometry = Tarvo::GEOJSON_LINESTRING;
};

/// The features of all routes in one collection; a route that is no collection is left out.
std::string joined(const std::vector<std::string>& routes) {
  nlohmann::ordered_json features = nlohmann::ordered_json::array();
  for (const std::string& route : routes) {
    const auto collection = nlohmann::ordered_json::parse(route, nullptr, false);
    if (!collection.is_object() || !collection.contains("features") || !collection["features"].is_array()) continue;
    for (const auto& feature : collection["features"]) features.push_back(feature);
  }
  return nlohmann::ordered_json{{"type", "FeatureCollection"}, {"features", std::move(features)}}.dump(
      -1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

int printHistory(const Options& options) {
  Tarvo tarvo = openForReading(options);
  if (options.format == "trips") {
    const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, options.since, options.until);
    if (!history) throw Failure{kLeft, "no past trips in that span of time"};
    print(joined(history->toGeoJSON()));
    return kDone;
  }
  const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, options.since, options.until);
  const auto text = history ? history->toGeoJSON(options.geometry) : std::nullopt;
  if (!text) throw Failure{kLeft, "no positions in that span of time"};
  print(*text);
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
  CLI::App* command = app.add_subcommand("history", "Prints the positions or past trips that a home holds, as GeoJSON");
  command->footer(
      "TIME is ISO 8601 (2024-06-15, 2024-06-15T10:11:12Z; UTC unless it has a zone) or seconds since 1970; positions\n"
      "are chosen by the time of their storage, trips by start and arrival.\n"
      "Exit status: 0 printed; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
  addReadingOptions(*command, *options);
  command->add_option("--format", options->format, "raw: the positions; trips: the routes of the past trips")
      ->check(CLI::IsMember({"raw", "trips"}))
      ->capture_default_str();
  addDate(*command, "--since", options->since, "Nothing from before");
  addDate(*command, "--until", options->until, "Nothing from after");
  command->add_option("--geometry", options->geometry, "Geometry of the features of positions")
      ->check(CLI::IsMember({Tarvo::GEOJSON_LINESTRING, Tarvo::GEOJSON_MULTIPOINT}))
      ->capture_default_str();
  command->callback([options, &run] { run = [options] { return printHistory(*options); }; });
}

}  // namespace tarvo::cli
