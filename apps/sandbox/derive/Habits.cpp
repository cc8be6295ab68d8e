#include "sandbox/derive/Habits.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "sandbox/derive/Parameters.h"
#include "sandbox/derive/Places.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kDay = 86'400;

/// A past departure from the place at which the host is now. Times of solar time.
struct Departure {
  std::int64_t day = 0;
  double ofDay = 0;     ///< seconds since midnight
  double duration = 0;  ///< seconds
  std::int64_t to = 0;  ///< a place; 0: none that is known
  std::int64_t trip = 0;
};

struct Past {
  std::set<std::int64_t> days;  ///< on which the host was observed
  std::vector<Departure> departures;  ///< by time
};

std::int64_t dayOf(double solar) { return static_cast<std::int64_t>(std::floor(solar / kDay)); }

Past pastOf(Records& records, const Book& book, const KnownPlace& here, const std::vector<KnownPlace>& places) {
  Past past;
  std::optional<KeptStop> previous;
  for (const Row& row : records.rows(Kind::Stay, book.newest - kProfileDays * kDay, book.newest)) {
    const KeptStop stop = stopOf(row);
    if (stop.departure <= book.profileSince) continue;
    const double arrival = solarTime(stop.arrival, here.centre.lon);
    if (!stop.lost)
      for (std::int64_t day = dayOf(arrival); day <= dayOf(solarTime(stop.departure, here.centre.lon)); ++day)
        past.days.insert(day);
    if (previous && placeOf(*previous, places) == &here && stop.trip != 0) {
      const double left = solarTime(previous->departure, here.centre.lon);
      const KnownPlace* to = placeOf(stop, places);
      past.departures.push_back({dayOf(left), left - dayOf(left) * kDay, arrival - left, to ? to->id : 0, stop.trip});
    }
    previous = stop;
  }
  return past;
}

/// How much a past day tells about one to come.
double alike(std::int64_t past, std::int64_t day) {
  const auto works = [](std::int64_t one) { return weekday(one) >= 1 && weekday(one) <= 5; };
  if (works(past) != works(day)) return 0;
  const double same = weekday(past) == weekday(day) ? 1 : kOtherWeekday;
  return same * std::exp2(-std::abs(static_cast<double>(day - past)) / kHalfLifeDays);
}

struct Example {
  Departure departure;
  double weight = 0;
};

double median(std::vector<Example> examples, double Departure::*member) {
  std::sort(examples.begin(), examples.end(), [&](const Example& one, const Example& other) {
    return one.departure.*member < other.departure.*member;
  });
  double half = 0;
  for (const Example& example : examples) half += example.weight / 2;
  for (const Example& example : examples)
    if (half -= example.weight; half <= 0) return example.departure.*member;
  return 0;
}

struct Guess {
  double probability = 0;
  std::int64_t day = 0, to = 0;
  std::vector<Example> examples;
};

/// What is most likely the next departure after a time: on each day ahead the first one counts, given that there was
/// none before.
Guess guess(const Past& past, double now) {
  Guess best;
  double none = 1;  // the probability that the host has not left before the day
  for (std::int64_t day = dayOf(now); day <= dayOf(now) + kDaysAhead; ++day) {
    const bool isToday = day == dayOf(now);
    double all = kSmoothing;
    for (const std::int64_t one : past.days)
      if (one < dayOf(now) || !isToday) all += alike(one, day);
    std::map<std::int64_t, std::vector<Example>> byPlace;
    std::int64_t seen = 0;
    for (const Departure& departure : past.departures) {
      const double weight = alike(departure.day, day);
      if (weight == 0 || departure.day == seen) continue;
      if (isToday && (departure.day == day || departure.ofDay <= now - day * kDay)) continue;
      seen = departure.day;
      byPlace[departure.to].push_back({departure, weight});
    }
    double left = 0;
    for (auto& [to, examples] : byPlace) {
      double weight = 0;
      for (const Example& example : examples) weight += example.weight;
      left += weight / all;
      if (to != 0 && none * weight / all > best.probability) best = {none * weight / all, day, to, std::move(examples)};
    }
    none *= 1 - left;
  }
  return best;
}

/// The route of the example that is most like the trip to come.
Json routeOf(Records& records, const Guess& guess, double ofDay) {
  const auto unlike = [&](const Example& example) {
    return std::pair(-example.weight, std::abs(example.departure.ofDay - ofDay));
  };
  std::vector<Example> examples = guess.examples;
  std::sort(examples.begin(), examples.end(),
            [&](const Example& one, const Example& other) { return unlike(one) < unlike(other); });
  for (const Example& example : examples) {
    const std::int64_t id = example.departure.trip;
    if (const auto rows = records.numbered(Kind::Trip, id - 1, id); !rows.empty())
      return Json::parse(rows.front().json).at("route");
  }
  return {};
}

}  // namespace

bool updatePrediction(Records& records, Book& book) {
  const auto stay = book.sweep.staying();
  if (!stay) return false;
  const auto places = knownPlaces(records);
  const KnownPlace* here = placeOf(*stay, places);
  if (here == nullptr) return false;
  const double lon = here->centre.lon;
  const Guess next = guess(pastOf(records, book, *here, places), solarTime(book.newest, lon));
  const auto to = std::find_if(places.begin(), places.end(), [&](const KnownPlace& one) { return one.id == next.to; });
  if (to == places.end()) return false;
  const double ofDay = median(next.examples, &Departure::ofDay);
  const double duration = std::round(median(next.examples, &Departure::duration));
  const Json route = routeOf(records, next, ofDay);
  if (route.is_null()) return false;
  const double start = std::round(next.day * kDay + ofDay - lon * 240);
  const Json json = {{"start_time", dateText(start)},
                     {"arrival_time", dateText(start + duration)},
                     {"probability", std::round(next.probability * 1000) / 1000},
                     {"destination_lon", to->centre.lon},
                     {"destination_lat", to->centre.lat},
                     {"start_name", here->name},
                     {"arrival_name", to->name},
                     {"duration", duration},
                     {"route", route},
                     {"destination_json", route}};
  const Row row = {book.predictions + 1, start, start + duration, json.dump()};
  const auto present = records.numbered(Kind::Prediction, 0, book.predictions);
  if (!present.empty() && present.back().json == row.json) return false;
  for (const Row& old : present) records.remove(Kind::Prediction, old.id);
  records.put(Kind::Prediction, row);
  book.prediction = book.predictions = row.id;
  return true;
}

}  // namespace tarvo::sandbox::derive
