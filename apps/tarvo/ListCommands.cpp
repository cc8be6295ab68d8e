#include <CLI/CLI.hpp>
#include <iomanip>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>

#include <tarvo/Tarvo.h>

#include "Arguments.h"
#include "Commands.h"
#include "Failure.h"
#include "Reading.h"

namespace tarvo::cli {
namespace {

using Json = nlohmann::ordered_json;

struct Options : ReadingOptions {
  bool json = false;
};

template <class Value>
Json orNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json(nullptr);
}

Json orNull(const std::optional<platform::Date>& date) { return date ? Json(isoDate(*date)) : Json(nullptr); }

/// A stored GeoJSON text as an object; null when there is none or it cannot be read.
Json geometry(const std::optional<std::string>& text) {
  Json json = text ? Json::parse(*text, nullptr, false) : Json(nullptr);
  return json.is_discarded() ? Json(nullptr) : json;
}

std::string place(const std::optional<double>& latitude, const std::optional<double>& longitude) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(5) << latitude.value_or(0) << "," << longitude.value_or(0);
  return text.str();
}

void printAll(const Json& list) { print(list.dump(-1, ' ', false, Json::error_handler_t::replace)); }

int printTrips(const Options& options) {
  const auto history = openForReading(options).getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {});
  if (!history) throw Failure{kLeft, "no past trips"};
  Json list = Json::array();
  for (const PastTripRecord& trip : history->pasttrips) {
    if (options.json) {
      list.push_back({{"id", orNull(trip.pasttrip_id)},
                      {"start_time", orNull(trip.start_time)},
                      {"arrival_time", orNull(trip.arrival_time)},
                      {"departure_lat", orNull(trip.departure_lat)},
                      {"departure_lon", orNull(trip.departure_lon)},
                      {"arrival_lat", orNull(trip.arrival_lat)},
                      {"arrival_lon", orNull(trip.arrival_lon)},
                      {"route", geometry(trip.route)}});
      continue;
    }
    std::ostringstream line;
    line << std::left << std::setw(8) << trip.pasttrip_id.value_or(0) << std::setw(22)
         << (trip.start_time ? isoDate(*trip.start_time) : "unknown") << std::setw(22)
         << (trip.arrival_time ? isoDate(*trip.arrival_time) : "unknown") << std::setw(22)
         << place(trip.departure_lat, trip.departure_lon) << place(trip.arrival_lat, trip.arrival_lon);
    print(line.str());
  }
  if (options.json) printAll(list);
  return kDone;
}

int printPlaces(const Options& options) {
  const auto places = openForReading(options).locationManager().getPointOfInterest();
  if (places.empty()) throw Failure{kLeft, "no points of interest"};
  Json list = Json::array();
  for (const PointOfInterestRecord& poi : places) {
    if (options.json) {
      list.push_back({{"id", orNull(poi.poi_id)},
                      {"latitude", orNull(poi.latitude)},
                      {"longitude", orNull(poi.longitude)},
                      {"point", geometry(poi.point_geo_json)},
                      {"zone", geometry(poi.zone_geo_json)}});
      continue;
    }
    std::ostringstream line;
    line << std::left << std::setw(8) << poi.poi_id.value_or(0) << place(poi.latitude, poi.longitude);
    print(line.str());
  }
  if (options.json) printAll(list);
  return kDone;
}

void addList(CLI::App& app, Run& run, const std::string& name, const std::string& meaning, const std::string& columns,
             int (*list)(const Options&)) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand(name, meaning);
  command->footer("Columns: " + columns + ".\n" +
                  "Exit status: 0 printed; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
  addReadingOptions(*command, *options);
  command->add_flag("--json", options->json, "Print one JSON array, with the geometries");
  command->callback([options, list, &run] { run = [options, list] { return list(*options); }; });
}

}  // namespace

void addListCommands(CLI::App& app, Run& run) {
  addList(app, run, "trips", "Lists the past trips that a home holds",
          "identifier, start, arrival (UTC), from, to (latitude,longitude)", printTrips);
  addList(app, run, "pois", "Lists the points of interest that a home holds", "identifier, latitude,longitude",
          printPlaces);
}

}  // namespace tarvo::cli
