// The commands that only read a home: history, trips, pois, status.

#include <CLI/CLI.hpp>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <tarvo/Health.h>
#include <tarvo/HostKeys.h>
#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>

#include "Arguments.h"
#include "Commands.h"
#include "Console.h"
#include "Home.h"
#include "Requests.h"
#include "Status.h"
#ifdef TARVO_WITH_UNIT
#include "unit/UnitOptions.h"
#endif

namespace tarvo::cli {
namespace {

using Json = nlohmann::ordered_json;

/// Options of every command that only reads a home.
struct ReadingOptions {
  std::string home;
  bool log = false;
};

void addReadingOptions(CLI::App& command, ReadingOptions& options) {
  command.add_option("--home", options.home, "The folder of the run")->required()->type_name("DIR");
  command.add_flag("--log", options.log, "Show the SDK's messages on standard error");
}

/// Makes the home that of the SDK, before its first touch. Fails with kLeft unless it holds a store.
Home openHome(const ReadingOptions& options) {
  Home home(options.home);
  home.requireStore();
  installConsole(options.log);
  platform::setHomeDirectory(home.directory());
  return home;
}

[[noreturn]] void failOn(const Home& home) {
  throw Failure{kUnusable, "the store " + home.store().string() + " cannot be used"};
}

/// Opens what the home holds, in the mode that may read all of it; nothing is activated, for that would store a
/// position. Once in a process. Fails with kUnusable when the store cannot be used.
Tarvo openForReading(const ReadingOptions& options) {
  const Home home = openHome(options);
  Tarvo tarvo;
  if (!tarvo.syncStatus().storeAvailable) failOn(home);
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_GEOPROFILE);
  return tarvo;
}

struct HistoryOptions : ReadingOptions {
  std::string format = "raw";
  std::optional<platform::Date> since, until;
  std::string geometry = Tarvo::GEOJSON_LINESTRING;
};

/// The features of all routes in one collection; a route that is no collection is left out.
std::string joined(const std::vector<std::string>& routes) {
  Json features = Json::array();
  for (const std::string& route : routes) {
    const auto collection = Json::parse(route, nullptr, false);
    if (!collection.is_object() || !collection.contains("features") || !collection["features"].is_array()) continue;
    for (const auto& feature : collection["features"]) features.push_back(feature);
  }
  return Json{{"type", "FeatureCollection"}, {"features", std::move(features)}}.dump(-1, ' ', false,
                                                                                     Json::error_handler_t::replace);
}

int printHistory(const HistoryOptions& options) {
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

void addHistory(CLI::App& app, Run& run) {
  const auto options = std::make_shared<HistoryOptions>();
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

/// Of the commands that also print JSON.
struct ListOptions : ReadingOptions {
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

int printTrips(const ListOptions& options) {
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

int printPlaces(const ListOptions& options) {
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
             int (*list)(const ListOptions&)) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App* command = app.add_subcommand(name, meaning);
  command->footer("Columns: " + columns + ".\n" +
                  "Exit status: 0 printed; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
  addReadingOptions(*command, *options);
  command->add_flag("--json", options->json, "Print one JSON array, with the geometries");
  command->callback([options, list, &run] { run = [options, list] { return list(*options); }; });
}

void addLists(CLI::App& app, Run& run) {
  addList(app, run, "trips", "Lists the past trips that a home holds",
          "identifier, start, arrival (UTC), from, to (latitude,longitude)", printTrips);
  addList(app, run, "pois", "Lists the points of interest that a home holds", "identifier, latitude,longitude",
          printPlaces);
}

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

Json ranges(const std::vector<Health::Range>& all) {
  Json list = Json::array();
  for (const auto& [first, last] : all) list.push_back({{"first", first}, {"last", last}});
  return list;
}

Json spans(const std::vector<Health::Gap>& gaps) {
  Json list = Json::array();
  for (const auto& [since, until, cause] : gaps)
    list.push_back({{"since", isoDate(since)}, {"until", orNull(until)}, {"cause", nameOf(cause)}});
  return list;
}

/// What stands behind the counts. The numbers of this process alone tell nothing, since it only reads.
void printHealth(const Health& health) {
  const auto& [lastTry, lastAcknowledgement, lastError, triesSince, nextTry, bytesToday] = health.delivery;
  const auto date = [](const std::optional<platform::Date>& moment) { return moment ? isoDate(*moment) : "unknown"; };
  if (const auto age = health.positions.oldestUnsentAge)
    std::cout << "waiting for   " << std::llround(age->count()) << " s\n";
  for (const auto& [first, last] : health.positions.acknowledgedWithoutAnswer)
    std::cout << "no answer     " << first << " to " << last << "\n";
  if (health.positions.removed > 0) std::cout << "removed       " << health.positions.removed;
  if (health.positions.removed > 0 && health.positions.removedUpTo)
    std::cout << ", up to " << *health.positions.removedUpTo;
  if (health.positions.removed > 0) std::cout << "\n";
  std::cout << "last try      " << date(lastTry) << "\n"
            << "last ack      " << date(lastAcknowledgement) << "\n";
  if (triesSince > 0) std::cout << "failed        " << triesSince << " times, last: " << nameOf(lastError) << "\n";
  for (const auto& [since, until, cause] : health.gaps)
    std::cout << "gap           " << isoDate(since) << " to " << (until ? isoDate(*until) : "now") << "  "
              << nameOf(cause) << "\n";
  std::cout << std::flush;
}

/// The mode of the last activation; a fresh process does not take it up.
std::optional<std::int64_t> keptMode() {
  const auto kept = platform::UserDefaults::standard().object(keys::kActivateMode);
  return kept ? kept->asInteger() : std::nullopt;
}

}  // namespace

std::string statusText(const Tarvo& tarvo, const Home& home) {
  const LocationManager::SyncStatus sync = tarvo.syncStatus();
  const Health health = tarvo.health();
  const Json status = {
      {"mode", orNull(keptMode())},
      {"uuid", orNull(LocationManager::userUUID())},
      {"stored", sync.stored},
      {"unsent", sync.unsent},
      {"awaiting", sync.awaiting},
      {"acknowledged", sync.acknowledged},
      {"unsaved", sync.unsaved},
      {"last_index", orNull(sync.lastIndex)},
      {"store_bytes", home.storeSize()},
      {"log_bytes", home.logSize()},
      {"oldest_unsent_seconds",
       health.positions.oldestUnsentAge ? Json(health.positions.oldestUnsentAge->count()) : Json(nullptr)},
      {"acknowledged_without_answer", ranges(health.positions.acknowledgedWithoutAnswer)},
      {"removed", health.positions.removed},
      {"removed_up_to", orNull(health.positions.removedUpTo)},
      {"last_try", orNull(health.delivery.lastTry)},
      {"last_acknowledgement", orNull(health.delivery.lastAcknowledgement)},
      {"last_error", nameOf(health.delivery.lastError)},
      {"tries_since", health.delivery.triesSince},
      {"next_try", orNull(health.delivery.nextTry)},
      {"bytes_today", health.delivery.bytesToday},
      {"fixes_received", health.fixes.received},
      {"fixes_not_finite", health.fixes.notFinite},
      {"fixes_off_the_globe", health.fixes.offTheGlobe},
      {"fixes_impossible_time", health.fixes.impossibleTime},
      {"fixes_filtered_by_distance", health.fixes.filteredByDistance},
      {"silence_seconds", health.fixes.silence.count()},
      {"store_error", orNull(health.store.lastError)},
      {"log_lines_dropped", health.log.linesDropped},
      {"gaps", spans(health.gaps)},
  };
  return status.dump();
}

namespace {

struct StatusOptions : ListOptions {
  bool watch = false;
};

int printStatus(const StatusOptions& options) {
#ifdef TARVO_WITH_UNIT
  if (options.watch)
    if (const auto status = watchUnit(options.home, options.json)) return *status;
#endif
  const Home home = openHome(options);
  const Tarvo tarvo;
  const LocationManager::SyncStatus sync = tarvo.syncStatus();
  if (!sync.storeAvailable) failOn(home);
  const Health health = tarvo.health();
  const std::optional<std::int64_t> mode = keptMode();
  const std::optional<std::string> user = LocationManager::userUUID();

  if (options.json) {
    std::cout << statusText(tarvo, home) << std::endl;
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
  printHealth(health);
  return kDone;
}

void addStatus(CLI::App& app, Run& run) {
  const auto options = std::make_shared<StatusOptions>();
  CLI::App* command = app.add_subcommand("status", "Tells mode, user, counts and sizes of a home");
  command->footer(
      "unsent: never posted; awaiting: posted, not acknowledged; unsaved: in memory alone; waiting for: since the\n"
      "oldest of them was stored; no answer: numbers that count as acknowledged although the backend has not "
      "answered;\n"
      "gap: more than five minutes without a position, and why (docs/hosting.md).\n"
      "Exit status: 0 told; 1 nothing there; 2 wrong usage; 3 the store cannot be used.");
#ifdef TARVO_WITH_UNIT
  options->home = unit::defaultHome();
  command->add_option("--home", options->home, "The folder of the run or unit [$STATE_DIRECTORY, else /var/lib/tarvo]")
      ->type_name("DIR");
  command->add_flag("--watch", options->watch, "Ask the unit that runs there each second, a line or object each");
#else
  command->add_option("--home", options->home, "The folder of the run")->required()->type_name("DIR");
#endif
  command->add_flag("--json", options->json, "Print one JSON object");
  command->add_flag("--log", options->log, "Show the SDK's messages on standard error");
  command->callback([options, &run] { run = [options] { return printStatus(*options); }; });
}

}  // namespace

void addReadCommands(CLI::App& app, Run& run) {
  addHistory(app, run);
  addLists(app, run);
  addStatus(app, run);
}

}  // namespace tarvo::cli
