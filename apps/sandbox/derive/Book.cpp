#include "sandbox/derive/Book.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>
#include <nlohmann/json.hpp>

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::json;

constexpr std::int64_t kOnlyRow = 1;
constexpr double kNever = std::numeric_limits<double>::lowest();

}  // namespace

Book::Book() : historySince(kNever), profileSince(kNever) {}

Book readBook(Records& records) {
  Book book;
  const auto rows = records.numbered(Kind::State, kOnlyRow - 1, kOnlyRow);
  if (rows.empty()) return book;
  const Json json = Json::parse(rows.front().json);
  book.sweep = Sweep(json.at("sweep"));
  book.first = json.at("first"), book.newest = json.at("newest"), book.newestID = json.at("newestID");
  book.stop = json.at("stop");
  const Json &given = json.at("given"), &told = json.at("told"), &since = json.at("since");
  book.stops = given[0], book.trips = given[1], book.places = given[2], book.placeVersions = given[3];
  book.predictions = given[4];
  book.lastTrip = told[0], book.placeVersion = told[1], book.prediction = told[2];
  book.tripCount = json.at("counts")[0], book.placeCount = json.at("counts")[1];
  book.historySince = since[0], book.profileSince = since[1];
  return book;
}

void write(Records& records, const Book& book) {
  const Json json = {{"sweep", book.sweep.state()},
                     {"first", book.first},
                     {"newest", book.newest},
                     {"newestID", book.newestID},
                     {"stop", book.stop},
                     {"given", {book.stops, book.trips, book.places, book.placeVersions, book.predictions}},
                     {"told", {book.lastTrip, book.placeVersion, book.prediction}},
                     {"counts", {book.tripCount, book.placeCount}},
                     {"since", {book.historySince, book.profileSince}}};
  records.put(Kind::State, {kOnlyRow, book.first, book.newest, json.dump()});
}

KeptStop stopOf(const Row& row) {
  const Json json = Json::parse(row.json);
  KeptStop stop;
  stop.id = row.id;
  stop.anchor = row.from, stop.departure = row.to;
  stop.seen = json.at("seen"), stop.arrival = json.at("arrival");
  stop.centre = {json.at("lon"), json.at("lat")};
  stop.lost = json.at("lost"), stop.trip = json.at("trip");
  return stop;
}

Row rowOf(const KeptStop& stop) {
  const Json json = {{"seen", stop.seen},      {"arrival", stop.arrival}, {"lon", stop.centre.lon},
                     {"lat", stop.centre.lat}, {"lost", stop.lost},       {"trip", stop.trip}};
  return {stop.id, stop.anchor, stop.departure, json.dump()};
}

std::optional<KeptStop> stopNumbered(Records& records, std::int64_t id) {
  const auto rows = records.numbered(Kind::Stay, id - 1, id);
  return rows.empty() ? std::nullopt : std::optional(stopOf(rows.front()));
}

std::string dateText(double time) {
  const auto milliseconds = static_cast<std::int64_t>(std::llround(time * 1000));
  const std::int64_t part = ((milliseconds % 1000) + 1000) % 1000;
  const auto seconds = static_cast<std::time_t>((milliseconds - part) / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char date[64], text[80];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text, sizeof text, "%s.%03d+0000", date, static_cast<int>(part));
  return text;
}

}  // namespace tarvo::sandbox::derive
