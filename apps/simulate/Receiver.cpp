#include "Receiver.h"

#include <algorithm>
#include <cmath>

namespace tarvo::simulation {
namespace {

/// Phones are right within 4.9 m under an open sky (GPS.gov after van Diggelen and Enge 2015), which is 3 m in each
/// direction; between high houses errors of 10 to 30 m are usual (Merry and Bettinger 2019, "Smartphone GPS accuracy
/// study in an urban environment").
constexpr double kOpenMetres = 3, kCanyonMetres = 12;

/// Errors stay alike for a minute under an open sky; reflections between houses change with every street.
constexpr double kOpenSeconds = 60, kCanyonSeconds = 20;

/// A cold start takes half a minute, one that a network assists some seconds; the first fixes err by tens of metres.
constexpr double kShortestStart = 6, kLongestStart = 32, kSearchingMetres = 28, kSearchingSeconds = 12;

/// Behind a tunnel a receiver knows the satellites and needs some seconds to find them again.
constexpr double kShortestReturn = 1, kLongestReturn = 5, kReturnMetres = 15;

/// Fixes that are wrong by far are rare, and less so where signals are reflected.
constexpr double kStraysOpen = 0.001, kStraysCanyon = 0.006;

/// The speed comes from the Doppler shift and is good to some 0.1 m/s.
constexpr double kSpeedDeviation = 0.12;

/// Positions from wireless networks err by 15 to 40 m (Zandbergen 2009, "Accuracy of iPhone locations"); one in a
/// hundred comes from a cell's mast alone.
constexpr double kIndoorMetres = 13, kMastShare = 0.01;

/// Of a normal error in two directions, 68 % lie within 1.51 deviations.
constexpr double kRadiusOfDeviation = 1.51;

double kept(double seconds, double constant) { return settled(std::exp(-seconds / constant)); }

/// The height of an invented land: smooth hills of some kilometres, the same at each visit.
double terrain(Coordinate at) {
  constexpr double kCell = 0.02, kLow = 420, kHigh = 560;
  const auto corner = [](double row, double column) {
    return Random({0x7e44a1, static_cast<std::uint64_t>(static_cast<std::int64_t>(row)),
                   static_cast<std::uint64_t>(static_cast<std::int64_t>(column))})
        .between(kLow, kHigh);
  };
  const double row = std::floor(at.lat / kCell), column = std::floor(at.lon / kCell);
  const auto smooth = [](double share) { return share * share * (3 - 2 * share); };
  const double north = smooth(at.lat / kCell - row), east = smooth(at.lon / kCell - column);
  const auto mix = [](double a, double b, double share) { return a + (b - a) * share; };
  return mix(mix(corner(row, column), corner(row, column + 1), east),
             mix(corner(row + 1, column), corner(row + 1, column + 1), east), north);
}

}  // namespace

Receiver::Receiver(Random random) : random_(random) {}

void Receiver::wake(std::int64_t ms) {
  now_ = ms;
  ready_ = ms + std::llround(1000 * random_.between(kShortestStart, kLongestStart));
  searching_ = kSearchingMetres * random_.between(0.5, 1.5);
  east_ = random_.normal();
  north_ = random_.normal();
  strayFixes_ = 0;
  covered_ = false;
}

void Receiver::pass(std::int64_t ms, Sky sky) {
  const double seconds = static_cast<double>(ms - now_) / 1000;
  now_ = ms;
  const double keeps = kept(seconds, sky == Sky::Open ? kOpenSeconds : kCanyonSeconds);
  const double fresh = std::sqrt(1 - keeps * keeps);
  for (double* error : {&east_, &north_, &up_}) *error = keeps * *error + fresh * random_.normal();
  const double target = sky == Sky::Open ? kOpenMetres : kCanyonMetres;
  deviation_ = target + (deviation_ - target) * kept(seconds, 6);
  if (ms > ready_) searching_ *= kept(seconds, kSearchingSeconds);
}

bool Receiver::strays(Sky sky) {
  if (strayFixes_ > 0) return --strayFixes_ > 0;
  if (!random_.chance(sky == Sky::Open ? kStraysOpen : kStraysCanyon)) return false;
  strayFixes_ = 1 + (random_.chance(0.3) ? 1 : 0);
  const bool west = random_.chance(0.5);
  strayEast_ = random_.between(60, 350) * (west ? -1 : 1);
  strayNorth_ = random_.between(-250, 250);
  return true;
}

Fix Receiver::fixAt(std::int64_t ms, const Spot& spot, double east, double north) {
  Fix fix;
  fix.ms = ms;
  fix.at = {spot.at.lat + north * spot.latPerMetre, spot.at.lon + east * spot.lonPerMetre};
  if (fix.at.lon >= 180) fix.at.lon -= 360;
  if (fix.at.lon < -180) fix.at.lon += 360;
  fix.altitude = terrain(spot.at) + 1.7 * deviation_ * up_;
  return fix;
}

std::optional<Fix> Receiver::observe(std::int64_t ms, const Spot& spot, double speed, Sky sky) {
  if (sky == Sky::Tunnel) {
    covered_ = true;
    return std::nullopt;
  }
  if (covered_) {
    covered_ = false;
    ready_ = ms + std::llround(1000 * random_.between(kShortestReturn, kLongestReturn));
    searching_ = kReturnMetres * random_.between(0.5, 1.5);
  }
  pass(ms, sky);
  if (ms < ready_) return std::nullopt;
  const double deviation = deviation_ + searching_;
  const bool stray = strays(sky);
  Fix fix =
      fixAt(ms, spot, deviation * east_ + (stray ? strayEast_ : 0), deviation * north_ + (stray ? strayNorth_ : 0));
  fix.accuracy = std::max(3.0, kRadiusOfDeviation * deviation * random_.around(1, 0.12));
  // A receiver knows of its stray fixes half of the time.
  if (stray && random_.chance(0.5)) fix.accuracy += 0.6 * std::abs(strayEast_);
  fix.speed = std::abs(speed + random_.around(0, kSpeedDeviation));
  // A course needs a speed; standing, the last one stays.
  if (speed > 0.4) course_ = spot.course + random_.around(0, 1 + 6 / (1 + speed));
  fix.course = course_;
  return fix;
}

Fix Receiver::indoors(std::int64_t ms, const Spot& spot) {
  now_ = ms;
  const bool mast = random_.chance(kMastShare);
  const double deviation = mast ? random_.between(200, 500) : kIndoorMetres * random_.between(0.6, 1.8);
  const double east = deviation * random_.normal(), north = deviation * random_.normal();
  Fix fix = fixAt(ms, spot, east, north);
  fix.accuracy = kRadiusOfDeviation * deviation * random_.around(1, 0.15);
  fix.speed = std::abs(random_.around(0, 0.05));
  fix.course = course_;
  return fix;
}

}  // namespace tarvo::simulation
