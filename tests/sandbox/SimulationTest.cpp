#include "simulate/Simulation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "simulate/Motion.h"

namespace tarvo::simulation {
namespace {

constexpr Coordinate kHome{48.1, 11.5}, kWork{48.16, 11.58};
constexpr std::int64_t kTuesday = 1715671800000;  // 2024-05-14T07:30:00Z

Request requested(Profile profile, std::uint64_t seed, int days = 1) {
  return {kHome, kWork, profile, seed, days, kTuesday, 1};
}

std::string gpxOf(const Request& request) {
  std::ostringstream out;
  writeGpx(out, simulate(request));
  return out.str().substr(out.str().find("<trk>"));  // the command before it names the seed
}

struct Error {
  double metres = 0, accuracy = 0;
};

/// What a receiver that stands still for hours gets wrong, and how alike its neighbouring errors are.
std::vector<Error> errorsUnder(Sky sky, double& likeness) {
  Receiver receiver(Random({7}));
  const Spot spot = standingAt(kHome);
  std::vector<Error> errors;
  double before = 0, products = 0, squares = 0;
  for (int second = 0; second < 20'000; ++second) {
    const auto fix = receiver.observe(second * 1000, spot, 1, sky);
    const double east = (fix->at.lon - kHome.lon) / spot.lonPerMetre;
    errors.push_back({metresBetween(kHome, fix->at), fix->accuracy});
    if (std::abs(east) > 50) continue;  // a stray is like nothing
    products += before * east;
    squares += east * east;
    before = east;
  }
  likeness = products / squares;
  return errors;
}

double share(const std::vector<Error>& errors, bool (*meets)(const Error&)) {
  return static_cast<double>(std::count_if(errors.begin(), errors.end(), meets)) / static_cast<double>(errors.size());
}

std::int64_t fixesWithin(const Simulation& made, std::int64_t from, std::int64_t to) {
  return std::count_if(made.fixes.begin(), made.fixes.end(),
                       [&](const Fix& fix) { return fix.ms >= from && fix.ms <= to; });
}

TEST(Simulation, GivesTheSameBytesForTheSameRequestAndOthersForAnother) {
  for (const Profile profile :
       {Profile::Drive, Profile::Bike, Profile::Walk, Profile::Outing, Profile::Day, Profile::Week}) {
    SCOPED_TRACE(commandOf(requested(profile, 1)));
    const std::string text = gpxOf(requested(profile, 1));
    EXPECT_EQ(text, gpxOf(requested(profile, 1)));
    EXPECT_NE(text, gpxOf(requested(profile, 2)));
  }
}

TEST(Simulation, MovesNobodyFasterOrMoreSuddenlyThanPeopleMove) {
  const struct {
    Mode mode;
    double metres, usual, fastest, hardest;  // m/s on the whole way and at most; m/s2, with curves
  } cases[] = {{Mode::Drive, 60'000, 14, 40, 4},
               {Mode::Drive, 9'000, 6, 40, 4},
               {Mode::Drive, 800, 2, 20, 4},
               {Mode::Bike, 5'000, 2.5, 7, 3},
               {Mode::Walk, 1'200, 0.8, 2, 2}};
  for (const auto& [mode, metres, usual, fastest, hardest] : cases)
    for (std::uint64_t seed = 0; seed < 8; ++seed) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(mode) << " " << metres << " m, seed " << seed);
      const Coordinate end = placeAt(kHome, 40.0 * static_cast<double>(seed), metres);
      const Road forward = layRoad(kHome, end, mode, Random({seed})), road = seed % 2 ? forward : reversed(forward);
      EXPECT_GT(road.length(), 1.005 * metres);
      EXPECT_LT(road.length(), 1.6 * metres);
      const Travel way = travel(road, mode, 1, Random({seed, 1}));
      EXPECT_GT(road.length() / static_cast<double>(way.ms) * 1000, usual);
      std::size_t near = 0;
      double north = 0, east = 0, worst = 0, top = 0;
      Spot before = spotAt(road, 0, near);
      for (const Moment& moment : way.moments) {
        const Spot spot = spotAt(road, moment.along, near);
        const double toNorth = (spot.at.lat - before.at.lat) / spot.latPerMetre,
                     toEast = (spot.at.lon - before.at.lon) / spot.lonPerMetre;
        worst = std::max(worst, std::hypot(toNorth - north, toEast - east));
        top = std::max({top, moment.speed, std::hypot(toNorth, toEast)});
        north = toNorth, east = toEast, before = spot;
      }
      EXPECT_LT(worst, hardest);
      EXPECT_LT(top, fastest);
      EXPECT_LT(metresBetween(before.at, seed % 2 ? end : kHome), 10);
    }
}

TEST(Simulation, TellsTheTruthAboutItsPoints) {
  for (std::uint64_t seed = 0; seed < 2; ++seed) {
    const Simulation made = simulate(requested(Profile::Week, seed, 31));
    EXPECT_LT(made.fixes.size(), 200'000u);
    EXPECT_GT(made.truth.trips.size(), 50u);
    EXPECT_EQ(std::adjacent_find(made.fixes.begin(), made.fixes.end(),
                                 [](const Fix& a, const Fix& b) { return a.ms >= b.ms; }),
              made.fixes.end());
    ASSERT_EQ(made.truth.stays.size(), made.truth.trips.size() + 1);
    auto fix = made.fixes.begin();
    for (std::size_t i = 0; i < made.truth.stays.size(); ++i) {
      const Truth::Stay& stay = made.truth.stays[i];
      const Coordinate place = made.truth.places[stay.place].at;
      std::vector<double> errors;
      for (; fix != made.fixes.end() && fix->ms < stay.to; ++fix) errors.push_back(metresBetween(place, fix->at));
      ASSERT_EQ(errors.size(), stay.fixes);
      std::nth_element(errors.begin(), errors.begin() + static_cast<std::ptrdiff_t>(errors.size() / 2), errors.end());
      EXPECT_LT(errors[errors.size() / 2], 60);
      if (i == made.truth.trips.size()) break;
      const Truth::Trip& trip = made.truth.trips[i];
      EXPECT_EQ(std::pair(trip.from, trip.start), std::pair(stay.place, stay.to));
      const auto first = fix;
      while (fix->ms < trip.arrival) ++fix;
      ASSERT_EQ(static_cast<std::size_t>(fix - first), trip.fixes);
      EXPECT_LT(metresBetween(std::prev(fix)->at, made.truth.places[trip.to].at), 400);
      EXPECT_EQ(std::pair(trip.to, trip.arrival),
                std::pair(made.truth.stays[i + 1].place, made.truth.stays[i + 1].from));
    }
    EXPECT_EQ(fix, made.fixes.end());
  }
}

TEST(Simulation, LosesItsFixesInTunnelsAndAtAColdStart) {
  std::size_t tunnels = 0;
  for (std::uint64_t seed = 0; seed < 10; ++seed) {
    const Simulation made = simulate(requested(Profile::Drive, seed));
    EXPECT_GE(made.fixes.front().ms, kTuesday + 6000);
    EXPECT_GT(made.fixes.front().accuracy, 15);
    for (const auto& [from, to] : made.truth.trips.front().tunnels) {
      EXPECT_GT(to - from, 5000);
      EXPECT_EQ(fixesWithin(made, from, to), 0);
      EXPECT_GT(fixesWithin(made, to, to + 8000), 0);
      ++tunnels;
    }
  }
  EXPECT_GT(tunnels, 2u);
}

TEST(Simulation, ErrsAsReceiversDo) {
  const struct {
    Sky sky;
    double accuracy, likeness, strays;
  } cases[] = {{Sky::Open, 4.5, 0.95, 0.0005}, {Sky::Canyon, 18, 0.9, 0.003}};
  for (const auto& [sky, accuracy, likeness, strays] : cases) {
    double alike = 0;
    std::vector<Error> errors = errorsUnder(sky, alike);
    EXPECT_GT(alike, likeness);
    EXPECT_LT(alike, 1);
    EXPECT_NEAR(share(errors, [](const Error& error) { return error.metres < error.accuracy; }), 0.68, 0.06);
    EXPECT_NEAR(share(errors, [](const Error& error) { return error.metres > 60; }) / strays, 3, 2);
    std::nth_element(errors.begin(), errors.begin() + 10'000, errors.end(),
                     [](const Error& a, const Error& b) { return a.accuracy < b.accuracy; });
    EXPECT_NEAR(errors[10'000].accuracy, accuracy, 1);
  }
}

TEST(Simulation, GoesOverTheDateLineAndRefusesWhatItCannotDo) {
  Request request = requested(Profile::Drive, 3);
  request.from = {-17, 179.97}, request.to = {-17.02, -179.97};
  for (int direction = 0; direction < 2; ++direction) {
    const Simulation made = simulate(request);
    EXPECT_LT(made.truth.trips.front().metres, 12'000);
    for (const Fix& fix : made.fixes) EXPECT_GT(std::abs(fix.at.lon), 179.9);
    for (const Fix& fix : made.fixes) EXPECT_LE(std::abs(fix.at.lon), 180);
    std::swap(request.from, request.to);
  }
  void (*const wrong[])(Request&) = {[](Request& it) { it.to = it.from; },
                                     [](Request& it) { it.from.lat = 80.1; },
                                     [](Request& it) {
                                       it.to = {-17, 170};
                                     },
                                     [](Request& it) { it.to.lon = std::nan(""); },
                                     [](Request& it) { it.days = 32; },
                                     [](Request& it) { it.rate = 0; },
                                     [](Request& it) { it.start = std::int64_t{1} << 60; }};
  for (const auto change : wrong) {
    Request changed = request;
    change(changed);
    EXPECT_THROW(simulate(changed), std::invalid_argument);
  }
}

}  // namespace
}  // namespace tarvo::simulation
