#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sandbox/derive/Derive.h"
#include "simulate/Simulation.h"

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::json;
using Points = std::vector<Point>;

constexpr double kHour = 3600, kDay = 86'400;
constexpr double kMonday = 1'717'372'800;  // 3 June 2024, 0:00 UTC
constexpr double kDegree = 111'195;        // metres along the equator

/// A user's records in memory, and the derivation of them.
struct User : Records {
  std::vector<Point> points(double from, double to) override {
    Points found;
    for (const auto& [rank, point] : stored)
      if (from <= point.time && point.time <= to) found.push_back(point);
    pointsRead += found.size();
    return found;
  }
  std::vector<Row> rows(Kind kind, double from, double to) override {
    std::vector<Row> found;
    for (const auto& [id, row] : kept[kind])
      if (row.from <= to && from <= row.to) found.push_back(row);
    std::stable_sort(found.begin(), found.end(),
                     [](const Row& one, const Row& other) { return one.from < other.from; });
    return found;
  }
  std::vector<Row> numbered(Kind kind, std::int64_t first, std::int64_t last) override {
    std::vector<Row> found;
    for (const auto& [id, row] : kept[kind])
      if (first < id && id <= last) found.push_back(row);
    return found;
  }
  void put(Kind kind, const Row& row) override { kept[kind][row.id] = row; }
  void remove(Kind kind, std::int64_t id) override { kept[kind].erase(id); }

  Changes take(const Points& batch) {
    for (const Point& point : batch) stored[{point.time, point.id}] = point;
    return takeIn(*this, batch);
  }
  Json trips(std::int64_t after = 0) { return Json::parse(pastTrips(*this, after, 1000)).at("trips"); }
  Json pois() { return Json::parse(places(*this)).at("pois"); }
  std::vector<std::int64_t> count() {
    const Json json = Json::parse(counters(*this));
    return {json.at("last_pasttrip_id"), json.at("last_poi_id"), json.at("last_prediction_id")};
  }

  std::map<std::pair<double, std::int64_t>, Point> stored;
  std::map<Kind, std::map<std::int64_t, Row>> kept;
  std::size_t pointsRead = 0;
};

/// A host on the equator, whose longitude is told in metres from `origin`.
struct Journey {
  double time = kMonday, at = 0, origin = 0;
  Points points;

  Journey& fix(double metresAside = 0) {
    double lon = origin + at / kDegree;
    if (lon > 180) lon -= 360;
    points.push_back({static_cast<std::int64_t>(points.size()), time, lon, metresAside / kDegree, 8, -1});
    return *this;
  }
  Journey& stay(double seconds, double every = 60) {
    for (const double end = time + seconds; time < end; time += every) fix(10 * std::sin(time));
    return *this;
  }
  Journey& go(double metres, double speed = 12, double every = 5) {
    const double start = at;
    for (; std::abs(at - start) < std::abs(metres); time += every, at += std::copysign(speed * every, metres)) fix();
    at = start + metres;
    return *this;
  }
  Journey& until(double moment) { return stay(moment - time, 600); }
};

/// Home by night, work on working days from half past seven to five.
Journey weeks(int days) {
  Journey journey;
  for (int day = 0; day < days; ++day) {
    const double midnight = kMonday + day * kDay;
    if (day % 7 < 5) journey.until(midnight + 7.5 * kHour).go(9000).until(midnight + 17 * kHour).go(-9000);
    journey.until(midnight + kDay);
  }
  return journey;
}

/// Everything but the numbers.
std::multiset<std::string> contents(Json trips) {
  std::multiset<std::string> texts;
  for (Json& trip : trips) trip.erase("pasttrip_id"), texts.insert(trip.dump());
  return texts;
}

TEST(Derive, FindsTheTripsThatAreThere) {
  struct Case {
    const char* what;
    Journey journey;
    std::vector<double> metres;  ///< of the trips
  } const cases[] = {
      {"drive between stays", Journey().stay(600).go(5000).stay(600), {5000}},
      {"nothing stands still", Journey().go(9000), {}},
      {"the track begins on the way", Journey().go(3000).stay(400), {3000}},
      {"a light is no stay", Journey().stay(600).go(3000).stay(120, 5).go(3000).stay(600), {6000}},
      {"an errand is one", Journey().stay(600).go(3000).stay(900).go(-3000).stay(600), {3000, 3000}},
      {"a few steps are no trip", Journey().stay(600).go(150, 1).stay(600), {}},
      {"a tunnel", Journey().stay(600).go(3000).go(9000, 20, 600).go(3000).stay(600), {15'000}},
      {"off on arrival, on in the morning",
       Journey().stay(600).go(4000).go(0.1, 0.01, 8 * kHour).go(4000).stay(600),
       {4000, 4000}},
      {"off for a day, elsewhere since",
       Journey().stay(600).go(4000).go(40'000, 0.5, 80'000).go(3000).stay(600),
       {4000, 3000}},
  };
  for (const auto& [what, journey, metres] : cases) {
    User user;
    user.take(journey.points);
    const Json trips = user.trips();
    ASSERT_EQ(trips.size(), metres.size()) << what << trips.dump(1);
    for (std::size_t i = 0; i < metres.size(); ++i)
      EXPECT_NEAR(trips[i].at("distance").get<double>(), metres[i], 160) << what;
  }
}

TEST(Derive, LooksAtNoPositionThatCannotBe) {
  Journey plain = Journey().stay(600).go(5000).stay(600);
  Journey spoilt = plain;
  const auto spoil = [&](std::size_t i, double lon, double lat, double accuracy, double after) {
    const Point& good = plain.points[i];
    spoilt.points.push_back({static_cast<std::int64_t>(1000 + i), good.time + after, lon, lat, accuracy, -1});
  };
  spoil(3, 0.5, 0, 10, 1);            // 55 km away
  spoil(20, 0.02, 0.02, 5000, 1);     // by cell
  spoil(30, 0.02, 0.006, 10, 2);      // 650 m aside, and back
  spoil(40, std::nan(""), 0, 10, 1);  // nowhere
  spoil(50, 0.02, 0, 10, -1e12);      // at no time
  spoil(60, 0, 95, 10, 1);
  User honest, fooled;
  honest.take(plain.points);
  fooled.take(spoilt.points);
  EXPECT_EQ(contents(fooled.trips()), contents(honest.trips()));
}

TEST(Derive, ComesToTheSameInAnyOrderAndKeepsNumbers) {
  const Journey week = weeks(5);
  User whole;
  whole.take(week.points);
  for (const unsigned seed : {1, 2, 3}) {
    User user;
    std::mt19937 random(seed);
    Points points = week.points;
    std::shuffle(points.begin(), points.end(), random);
    for (std::size_t i = 0; i < points.size(); i += 97)
      user.take({points.begin() + i, points.begin() + std::min(points.size(), i + 97)});
    EXPECT_EQ(contents(user.trips()), contents(whole.trips()));
    EXPECT_EQ(totals(user).trips, 10);
  }
  // When half of a trip comes late it stays the trip that it was.
  User late;
  Points held, rest;
  for (const Point& point : week.points) (point.id % 50 > 25 ? held : rest).push_back(point);
  late.take(rest);
  const auto counted = late.count();
  const Json before = late.trips();
  late.take(held);
  const Json after = late.trips();
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t i = 0; i < before.size(); ++i) EXPECT_EQ(after[i].at("pasttrip_id"), before[i].at("pasttrip_id"));
  EXPECT_EQ(contents(after), contents(whole.trips()));
  EXPECT_EQ(late.count()[0], counted[0]);
}

TEST(Derive, CutsRoutesAndZonesAtTheDateLine) {
  Journey journey;
  journey.origin = 179.99;
  journey.stay(2 * kHour).go(1090).stay(2 * kHour).go(2000).stay(2 * kHour);
  User user;
  user.take(journey.points);
  const Json features = user.trips()[1].at("route").at("features");
  ASSERT_EQ(features.size(), 2);
  for (const Json& feature : features) {
    const Json& line = feature.at("geometry").at("coordinates");
    ASSERT_GE(line.size(), 2);
    for (const Json& position : line) EXPECT_EQ(position[0] < 0, line[0][0] < 0) << line;
  }
  EXPECT_EQ(features[0].at("geometry").at("coordinates").back()[0], 180);
  EXPECT_EQ(features[1].at("geometry").at("coordinates")[0][0], -180);
  EXPECT_NEAR(user.trips()[1].at("distance").get<double>(), 2000, 100);
  EXPECT_EQ(user.pois()[1].at("zone_geo_json").at("type"), "MultiPolygon");
}

TEST(Derive, NamesPlacesAndPredictsTheCommute) {
  Journey journey = weeks(14);
  journey.until(journey.time + 6.5 * kHour);  // a Monday morning
  User user;
  for (std::size_t i = 0; i < journey.points.size(); i += 40)
    user.take({journey.points.begin() + i, journey.points.begin() + std::min(journey.points.size(), i + 40)});
  const Json pois = user.pois();
  ASSERT_EQ(pois.size(), 2);
  EXPECT_EQ(pois[0].at("name"), "Home");
  EXPECT_EQ(pois[1].at("name"), "Work");
  EXPECT_EQ(pois[1].at("visits"), 10);
  EXPECT_NEAR(pois[1].at("lon").get<double>(), 9000 / kDegree, 20 / kDegree);
  const Json next = Json::parse(prediction(user));
  EXPECT_EQ(next.at("start_name"), "Home");
  EXPECT_EQ(next.at("arrival_name"), "Work");
  EXPECT_EQ(next.at("start_time").get<std::string>().substr(0, 14), "2024-06-17T07:") << next;
  EXPECT_GT(next.at("probability"), 0.8);
  EXPECT_LT(next.at("probability"), 1);
  EXPECT_NEAR(next.at("duration").get<double>(), 750, 120);
  EXPECT_EQ(next.at("destination_json").at("features")[0].at("geometry").at("type"), "LineString");
}

/// Of trips that were and trips that were derived: those that are the same, but for a few minutes at either end.
double shared(const simulation::Truth& truth, const std::map<std::int64_t, Row>& derived) {
  constexpr double kMinutes = 300;
  return static_cast<double>(std::ranges::count_if(truth.trips, [&](const simulation::Truth::Trip& trip) {
    const double start = static_cast<double>(trip.start) / 1000, arrival = static_cast<double>(trip.arrival) / 1000;
    return std::ranges::any_of(derived, [&](const auto& row) {
      return std::abs(row.second.from - start) < kMinutes && std::abs(row.second.to - arrival) < kMinutes;
    });
  }));
}

TEST(Derive, FindsTheTripsAndTheCommutesOfInventedMonths) {
  for (const std::uint64_t seed : {1, 2, 3}) {
    const auto month =
        simulation::simulate({{48.1, 11.5}, {48.13, 11.6}, simulation::Profile::Week, seed, 28, 1715671800000, 0.1});
    ASSERT_EQ(month.truth.places[1].name, "work");
    User user;
    std::size_t commutes = 0, predicted = 0, next = 0;
    for (const simulation::Truth::Trip& trip : month.truth.trips) {
      Points batch;
      for (; next < month.fixes.size() && month.fixes[next].ms < trip.start; ++next) {
        const simulation::Fix& fix = month.fixes[next];
        batch.push_back({static_cast<std::int64_t>(next), static_cast<double>(fix.ms) / 1000, fix.at.lon, fix.at.lat,
                         fix.accuracy, fix.speed});
      }
      user.take(batch);
      if (trip.from != 0 || trip.to != 1 || trip.start < month.truth.trips[0].start + 7 * 86'400'000LL) continue;
      const Json expected = Json::parse(prediction(user));
      ++commutes;
      predicted += expected.value("start_name", "") == "Home" && expected.value("arrival_name", "") == "Work";
    }
    const auto& derived = user.kept[Kind::Trip];
    const double found = shared(month.truth, derived);
    EXPECT_GE(found / static_cast<double>(month.truth.trips.size() - 1), 0.9) << "recall; the last trip has not ended";
    EXPECT_GE(found / static_cast<double>(derived.size()), 0.9) << "precision";
    EXPECT_GE(commutes, 10);
    EXPECT_GE(static_cast<double>(predicted), 0.9 * static_cast<double>(commutes));
  }
}

TEST(Derive, CountersMoveWhenThereIsSomethingNewAndOnlyThen) {
  const Journey journey = weeks(8);
  User user;
  auto counted = user.count();
  EXPECT_EQ(counted, (std::vector<std::int64_t>{0, 0, 0}));
  const auto seen = [&] {
    Json pois = user.pois(), next = Json::parse(prediction(user));
    for (Json& poi : pois) poi.erase("visits"), poi.erase("seconds");
    next.erase("prediction_id");
    return std::vector<std::string>{std::to_string(user.trips().size()), pois.dump(), next.dump()};
  };
  auto before = seen();
  for (std::size_t i = 0; i < journey.points.size(); i += 20) {
    user.take({journey.points.begin() + i, journey.points.begin() + std::min(journey.points.size(), i + 20)});
    const auto now = user.count();
    const auto after = seen();
    for (std::size_t kind = 0; kind < now.size(); ++kind)
      ASSERT_EQ(now[kind] != counted[kind], after[kind] != before[kind]) << kind;
    counted = now, before = after;
  }
  EXPECT_EQ(counted[0], 12);
  EXPECT_EQ(user.trips(10).size(), 2);
  EXPECT_GT(counted[1], 0);
  EXPECT_GT(counted[2], 0);
}

TEST(Derive, ForgetsAndBeginsAnew) {
  Journey journey = weeks(3);
  User user;
  user.take(journey.points);
  forgetHistory(user);
  forgetGeoProfile(user);
  EXPECT_EQ(user.count(), (std::vector<std::int64_t>{0, 0, 0}));
  EXPECT_EQ(user.trips().size() + user.pois().size(), 0);
  EXPECT_FALSE(Json::parse(prediction(user)).at("success").get<bool>());
  const std::size_t old = journey.points.size();
  journey.go(4000).stay(kHour);
  user.take({journey.points.begin() + old, journey.points.end()});
  EXPECT_EQ(user.count()[0], 7);  // a number is never given twice
  EXPECT_EQ(totals(user).trips, 1);
  EXPECT_EQ(totals(user).places, 2);  // where it went, and where it has stayed on
}

TEST(Derive, ABatchCostsTheSameBehindALongHistory) {
  Journey journey = weeks(60);
  const std::size_t old = journey.points.size();
  journey.until(journey.time + 7.5 * kHour).go(9000).stay(kHour);
  User user;
  user.take({journey.points.begin(), journey.points.begin() + old});
  user.pointsRead = 0;
  for (std::size_t i = old; i < journey.points.size(); ++i) user.take({journey.points[i]});
  EXPECT_LE(user.pointsRead, 2 * (journey.points.size() - old));
  // One that comes late touches only the trip that it belongs to.
  user.pointsRead = 0;
  Point late = journey.points[old / 2];
  late.id = 1'000'000, late.time += 1;
  user.take({late});
  EXPECT_LE(user.pointsRead, 1000);
}

}  // namespace
}  // namespace tarvo::sandbox::derive
