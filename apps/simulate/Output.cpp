#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Simulation.h"
#include "Text.h"

namespace tarvo::simulation {

std::string fixed(double value, int decimals) {
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, decimals).ptr;
  const std::string whole(text, end);
  return whole.find_first_not_of("-0.") == std::string::npos && whole[0] == '-' ? whole.substr(1) : whole;
}

std::string twoDigits(std::int64_t number) { return (number < 10 ? "0" : "") + std::to_string(number); }

/// The calendar after Hinnant, "chrono-compatible low-level date algorithms".
std::string moment(std::int64_t ms) {
  constexpr std::int64_t kDay = 86'400'000;
  const std::int64_t inDay = ((ms % kDay) + kDay) % kDay;
  const std::int64_t shifted = (ms - inDay) / kDay + 719'468;
  const std::int64_t era = shifted / 146'097, day = shifted % 146'097;
  const std::int64_t yearOfEra = (day - day / 1460 + day / 36'524 - day / 146'096) / 365;
  const std::int64_t dayOfYear = day - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t third = (5 * dayOfYear + 2) / 153, month = third < 10 ? third + 3 : third - 9;
  const std::int64_t seconds = inDay / 1000, fraction = inDay % 1000;
  return std::to_string(era * 400 + yearOfEra + (month <= 2 ? 1 : 0)) + "-" + twoDigits(month) + "-" +
         twoDigits(dayOfYear - (153 * third + 2) / 5 + 1) + "T" + twoDigits(seconds / 3600) + ":" +
         twoDigits(seconds / 60 % 60) + ":" + twoDigits(seconds % 60) +
         (fraction == 0 ? "" : "." + std::to_string(1000 + fraction).substr(1)) + "Z";
}

double turned(double course) {
  const double rounded = std::round(course * 10) / 10;
  return rounded - 360 * std::floor(rounded / 360);
}

namespace {

/// Without zeros at its end.
std::string brief(double value, int decimals) {
  std::string text = fixed(value, decimals);
  text.erase(text.find_last_not_of('0') + 1);
  if (text.back() == '.') text.pop_back();
  return text;
}

std::string pair(Coordinate place) { return brief(place.lat, 6) + "," + brief(place.lon, 6); }

const char* nameOf(Mode mode) { return mode == Mode::Drive ? "drive" : mode == Mode::Bike ? "bike" : "walk"; }

nlohmann::ordered_json seconds(std::int64_t ms) {
  if (ms % 1000 == 0) return ms / 1000;
  return static_cast<double>(ms) / 1000;
}

}  // namespace

std::string commandOf(const Request& request) {
  static constexpr const char* kProfiles[] = {"drive", "bike", "walk", "outing", "day", "week"};
  const bool person = request.profile == Profile::Day || request.profile == Profile::Week;
  return "tarvo simulate --from " + pair(request.from) + " --to " + pair(request.to) + " --profile " +
         kProfiles[static_cast<std::size_t>(request.profile)] + " --seed " + std::to_string(request.seed) +
         (person ? " --days " + std::to_string(request.days) : "") + " --start " + moment(request.start) + " --rate " +
         brief(request.rate, 3);
}

void writeGpx(std::ostream& out, const Simulation& simulation) {
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<gpx version=\"1.0\" creator=\"Tarvo\" xmlns=\"http://www.topografix.com/GPX/1/0\">\n"
         "<desc>Invented: nobody made these trips, and their roads do not exist. Made by: "
      << commandOf(simulation.request) << "</desc>\n<trk><name>Invented trip</name><trkseg>\n";
  for (const Fix& fix : simulation.fixes)
    out << "<trkpt lat=\"" << fixed(fix.at.lat, 6) << "\" lon=\"" << fixed(fix.at.lon, 6) << "\"><ele>"
        << fixed(fix.altitude, 1) << "</ele><time>" << moment(fix.ms) << "</time><course>"
        << fixed(turned(fix.course), 1) << "</course><speed>" << fixed(fix.speed, 2) << "</speed><hdop>"
        << fixed(fix.accuracy / 5, 1) << "</hdop></trkpt>\n";
  out << "</trkseg></trk>\n</gpx>\n";
}

void writeTruth(std::ostream& out, const Simulation& simulation) {
  using Json = nlohmann::ordered_json;
  const Truth& truth = simulation.truth;
  const auto rounded = [](double value, double factor) { return std::round(value * factor) / factor; };
  Json places = Json::array(), stays = Json::array(), trips = Json::array();
  for (const Place& place : truth.places)
    places.push_back({{"name", place.name}, {"lat", rounded(place.at.lat, 1e6)}, {"lon", rounded(place.at.lon, 1e6)}});
  for (const Truth::Stay& stay : truth.stays)
    stays.push_back({{"place", truth.places[stay.place].name},
                     {"from", seconds(stay.from)},
                     {"to", seconds(stay.to)},
                     {"fixes", stay.fixes}});
  for (const Truth::Trip& trip : truth.trips) {
    Json tunnels = Json::array();
    for (const auto& [from, to] : trip.tunnels) tunnels.push_back(Json::array({seconds(from), seconds(to)}));
    trips.push_back({{"from", truth.places[trip.from].name},
                     {"to", truth.places[trip.to].name},
                     {"mode", nameOf(trip.mode)},
                     {"start", seconds(trip.start)},
                     {"arrival", seconds(trip.arrival)},
                     {"metres", rounded(trip.metres, 1)},
                     {"fixes", trip.fixes},
                     {"tunnels", tunnels}});
  }
  out << Json({{"command", commandOf(simulation.request)}, {"places", places}, {"stays", stays}, {"trips", trips}})
             .dump(1)
      << "\n";
}

}  // namespace tarvo::simulation
