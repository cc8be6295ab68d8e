#include "sandbox/derive/Habits.h"

#include <algorithm>
#include <cmath>
#include <limits>
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

/// A past visit to the place at which the host is now, with the trip that followed. Times are solar.
struct Visit {
  double arrived = 0, left = 0;
  double duration = 0;  ///< of the trip, seconds
  std::int64_t to = 0;  ///< a place; 0: none that is known
  std::int64_t trip = 0;
};

std::int64_t dayOf(double solar) { return static_cast<std::int64_t>(std::floor(solar / kDay)); }
double ofDay(double solar) { return solar - dayOf(solar) * kDay; }

struct Past {
  std::set<std::int64_t> days;  ///< on which the host was observed
  std::vector<Visit> visits;    ///< by time
  double arrived = 0;           ///< where it is now
};

Past pastOf(Records& records, const Book& book, const KnownPlace& here, const std::vector<KnownPlace>& places) {
  Past past;
  const double lon = here.centre.lon;
  const KnownPlace* before = nullptr;
  double arrived = 0, left = 0;
  for (const Row& row : records.rows(Kind::Stay, book.newest - kProfileDays * kDay, book.newest)) {
    const KeptStop stop = stopOf(row);
    if (stop.departure <= book.profileSince) continue;
    const KnownPlace* now = placeOf(stop, places);
    const double arrival = solarTime(stop.arrival, lon);
    if (!stop.lost)
      for (auto day = dayOf(arrival); day <= dayOf(solarTime(stop.departure, lon)); ++day) past.days.insert(day);
    if (before == &here && stop.trip != 0)
      past.visits.push_back({arrived, left, arrival - left, now ? now->id : 0, stop.trip});
    if (now != before || stop.trip != 0) arrived = arrival;
    left = solarTime(stop.departure, lon);
    before = now;
  }
  past.arrived = arrived;
  return past;
}

double recency(std::int64_t past, std::int64_t day) {
  return std::exp2(-std::abs(static_cast<double>(day - past)) / kHalfLifeDays);
}

/// How much a past day tells about one to come.
double alike(std::int64_t past, std::int64_t day) {
  const auto works = [](std::int64_t one) { return weekday(one) >= 1 && weekday(one) <= 5; };
  if (works(past) != works(day)) return 0;
  return (weekday(past) == weekday(day) ? 1 : kOtherWeekday) * recency(past, day);
}

/// How much a past visit tells about one that began today: a place has its hours on other days too.
double alikeVisit(const Visit& past, double arrived) {
  double apart = std::abs(ofDay(past.arrived) - ofDay(arrived));
  apart = std::min(apart, kDay - apart);
  const double days =
      std::max(alike(dayOf(past.arrived), dayOf(arrived)), kOtherHabit * recency(dayOf(past.arrived), dayOf(arrived)));
  return days * (apart <= kSameHours ? 1 : kOtherHabit);
}

struct Example {
  Visit visit;
  double ofDay = 0;  ///< when the host would leave, seconds since midnight
  double weight = 0;
};

template <class Member>
double median(std::vector<Example> examples, Member member) {
  std::sort(examples.begin(), examples.end(),
            [&](const Example& one, const Example& other) { return member(one) < member(other); });
  double half = 0;
  for (const Example& example : examples) half += example.weight / 2;
  for (const Example& example : examples)
    if (half -= example.weight; half <= 0) return member(example);
  return 0;
}

struct Guess {
  double probability = 0;
  std::int64_t day = 0, to = 0;
  std::vector<Example> examples;
};

/// What may happen on a day: examples of the first departure, and the weight of everything that speaks for or against
/// one.
struct Outlook {
  double all = kSmoothing;
  std::vector<Example> examples;
};

/// For the day on which the host came: as after earlier visits that lasted longer than this one has so far.
Outlook afterVisits(const Past& past, double now) {
  Outlook outlook;
  for (const Visit& visit : past.visits) {
    const double stayed = visit.left - visit.arrived, leaves = past.arrived + stayed;
    if (leaves <= now) continue;
    const double weight = alikeVisit(visit, past.arrived);
    outlook.all += weight;
    if (dayOf(leaves) == dayOf(now)) outlook.examples.push_back({visit, ofDay(leaves), weight});
  }
  return outlook;
}

/// For any other day: as on earlier days after the same time.
Outlook afterDays(const Past& past, std::int64_t day, double now) {
  Outlook outlook;
  const bool isToday = day == dayOf(now);
  for (const std::int64_t one : past.days)
    if (!isToday || one < day) outlook.all += alike(one, day);
  std::int64_t seen = std::numeric_limits<std::int64_t>::min();
  for (const Visit& visit : past.visits) {
    const std::int64_t left = dayOf(visit.left);
    const double weight = alike(left, day);
    if (weight == 0 || left == seen || (isToday && (left == day || ofDay(visit.left) <= ofDay(now)))) continue;
    seen = left;
    outlook.examples.push_back({visit, ofDay(visit.left), weight});
  }
  return outlook;
}

/// What is most likely the next departure: on each day ahead the first one counts, given that there was none before.
Guess guess(const Past& past, double now) {
  Guess best;
  double none = 1;  // the probability that the host has not left before the day
  for (std::int64_t day = dayOf(now); day <= dayOf(now) + kDaysAhead; ++day) {
    const Outlook outlook = day == dayOf(past.arrived) ? afterVisits(past, now) : afterDays(past, day, now);
    std::map<std::int64_t, Guess> byPlace;
    double left = 0;
    for (const Example& example : outlook.examples) {
      Guess& to = byPlace[example.visit.to];
      to.probability += none * example.weight / outlook.all;
      to.examples.push_back(example);
      left += example.weight / outlook.all;
    }
    for (auto& [to, one] : byPlace)
      if (to != 0 && one.probability > best.probability) best = {one.probability, day, to, std::move(one.examples)};
    none *= 1 - left;
  }
  return best;
}

/// The route of the example that is most like the trip to come.
Json routeOf(Records& records, const Guess& guess, double leaves) {
  const auto unlike = [&](const Example& example) {
    return std::pair(-example.weight, std::abs(example.ofDay - leaves));
  };
  std::vector<Example> examples = guess.examples;
  std::sort(examples.begin(), examples.end(),
            [&](const Example& one, const Example& other) { return unlike(one) < unlike(other); });
  for (const Example& example : examples) {
    const std::int64_t id = example.visit.trip;
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
  const double leaves = median(next.examples, [](const Example& one) { return one.ofDay; });
  const double duration = std::round(median(next.examples, [](const Example& one) { return one.visit.duration; }));
  const Json route = routeOf(records, next, leaves);
  if (route.is_null()) return false;
  const double start = std::round(next.day * kDay + leaves - lon * 240);
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
