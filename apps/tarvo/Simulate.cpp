#include <CLI/CLI.hpp>
#include <cmath>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "Arguments.h"
#include "Commands.h"
#include "Console.h"
#include "simulate/Simulation.h"

namespace tarvo::cli {
namespace {

using simulation::Coordinate;
using simulation::Profile;

struct SimulateOptions {
  simulation::Request request;
  std::string profile, format = "gpx";
  std::optional<int> days;
  std::optional<std::string> truth, output;
};

const std::map<std::string, Profile> kProfiles = {{"drive", Profile::Drive}, {"bike", Profile::Bike},
                                                  {"walk", Profile::Walk},   {"outing", Profile::Outing},
                                                  {"day", Profile::Day},     {"week", Profile::Week}};

Coordinate parsePlace(const std::string& option, const std::string& text) {
  const std::size_t comma = text.find(',');
  if (comma != std::string::npos) {
    const auto lat = parseNumber(text.substr(0, comma)), lon = parseNumber(text.substr(comma + 1));
    if (lat && lon) return {*lat, *lon};
  }
  throw CLI::ValidationError(option, "neither a latitude, a comma and a longitude: " + text);
}

template <class Write>
void writeFile(const std::string& name, Write write) {
  std::ofstream file(name, std::ios::binary);
  write(file);
  if (!file.flush()) throw Failure{kUnusable, name + ": cannot be written"};
}

int simulate(const SimulateOptions& options) {
  simulation::Request request = options.request;
  request.profile = kProfiles.at(options.profile);
  const bool person = request.profile == Profile::Day || request.profile == Profile::Week;
  if (options.days && !person) throw Failure{kUsage, "--days belongs to the profiles day and week"};
  request.days = options.days.value_or(request.profile == Profile::Week ? 7 : 1);
  simulation::Simulation made;
  try {
    made = simulation::simulate(request);
  } catch (const std::invalid_argument& error) {
    throw Failure{kUsage, error.what()};
  }
  if (options.truth) writeFile(*options.truth, [&](std::ostream& out) { simulation::writeTruth(out, made); });
  const auto write = options.format == "nmea" ? simulation::writeNmea : simulation::writeGpx;
  if (options.output)
    writeFile(*options.output, [&](std::ostream& out) { write(out, made); });
  else
    write(std::cout, made);
  return kDone;
}

}  // namespace

void addSimulateCommand(CLI::App& app, Run& run) {
  const auto options = std::make_shared<SimulateOptions>();
  CLI::App* command =
      app.add_subcommand("simulate", "Invents trips and prints them as GPX for a replay, or as a receiver's NMEA");
  command->footer(
      "The same options give the same bytes on every machine. A day or week is one of a person with home (--from),\n"
      "work (--to) and habits; it begins at the midnight before --start, by the sun at home. docs/replay.md says "
      "more.\n"
      "Exit status: 0 done; 2 wrong usage; 3 a file cannot be written.");
  const auto place = [command](const std::string& name, Coordinate& into, const std::string& text) {
    command
        ->add_option_function<std::string>(
            name, [name, &into](const std::string& value) { into = parsePlace(name, value); }, text)
        ->required()
        ->type_name("LAT,LON");
  };
  place("--from", options->request.from, "Where the way begins, or home");
  place("--to", options->request.to, "Where it ends, or work");
  command->add_option("--profile", options->profile, "What is done")
      ->required()
      ->check(CLI::IsMember({"drive", "bike", "walk", "outing", "day", "week"}))
      ->type_name("PROFILE");
  command->add_option("--seed", options->request.seed, "Another number, other trips")
      ->required()
      ->check([](const std::string& text) {
        return text.starts_with('-') ? "neither 0 nor a number above: " + text : std::string();
      })
      ->type_name("N");
  command->add_option("--days", options->days, "Days of the person, at most 31 [1 or 7]")->type_name("N");
  command
      ->add_option_function<std::string>(
          "--start",
          [options](const std::string& text) {
            const auto date = parseDate(text);
            if (!date) throw CLI::ValidationError("--start", "no time: " + text);
            const double seconds = std::floor(platform::secondsSince1970(*date));
            if (!(std::abs(seconds) < 4e9)) throw CLI::ValidationError("--start", "out of range: " + text);
            options->request.start = static_cast<std::int64_t>(seconds) * 1000;
          },
          "When it begins: ISO 8601 or seconds since 1970 [2024-05-14T07:30:00Z]")
      ->type_name("TIME");
  command->add_option("--rate", options->request.rate, "Fixes a second while moving [1]")->type_name("HZ");
  command->add_option("--truth", options->truth, "Gets the places, stays and trips as they were (JSON)")
      ->type_name("FILE");
  command->add_option("--output", options->output, "Gets the trips instead of standard output")->type_name("FILE");
  command->add_option("--format", options->format, "What is printed: gpx, or nmea (RMC, GGA and GST) [gpx]")
      ->check(CLI::IsMember({"gpx", "nmea"}).description(""))
      ->type_name("FORMAT");
  command->callback([options, &run] { run = [options] { return simulate(*options); }; });
}

}  // namespace tarvo::cli
