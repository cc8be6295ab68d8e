#include "Simulation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <stdexcept>

#include "Motion.h"

namespace tarvo::simulation {
namespace {

constexpr std::uint64_t kRoads = 1, kTrips = 2, kReceiver = 3, kStays = 4;

void check(bool met, const char* reason) {
  if (!met) throw std::invalid_argument(reason);
}

Coordinate taken(Coordinate place) { return {std::round(place.lat * 1e6) / 1e6, std::round(place.lon * 1e6) / 1e6}; }

Request taken(Request request) {
  for (Coordinate* place : {&request.from, &request.to}) {
    check(std::abs(place->lat) <= 80 && std::abs(place->lon) <= 180,
          "--from and --to: latitudes lie within 80 degrees and longitudes within 180");
    *place = taken(*place);
  }
  const double metres = metresBetween(request.from, request.to);
  check(metres >= 500 && metres <= 500'000, "--from and --to: they lie 500 m to 500 km apart");
  check(request.days >= 1 && request.days <= 31, "--days: 1 to 31");
  check(request.rate >= 0.01 && request.rate <= 10, "--rate: 0.01 to 10 fixes a second");
  check(std::abs(request.start) < 4'000'000'000'000, "--start: a year from 1844 to 2096");
  request.rate = std::round(request.rate * 1000) / 1000;
  return request;
}

Plan planOf(const Request& request) {
  const auto oneWayBy = [&](Mode mode) { return oneWay(request.from, request.to, mode, request.start); };
  switch (request.profile) {
    case Profile::Drive:
      return oneWayBy(Mode::Drive);
    case Profile::Bike:
      return oneWayBy(Mode::Bike);
    case Profile::Walk:
      return oneWayBy(Mode::Walk);
    case Profile::Outing:
      return outing(request.from, request.to, request.seed, request.start);
    case Profile::Day:
    case Profile::Week:
      break;
  }
  return life(request.from, request.to, request.seed, request.start, request.days);
}

/// Carries out a plan with a phone in the pocket.
class Phone {
 public:
  Phone(const Plan& plan, Simulation& result)
      : plan_(plan), result_(result), receiver_(Random({result.request.seed, kReceiver})) {}

  void follow() {
    result_.truth.places = plan_.places;
    std::size_t here = 0;
    std::int64_t now = plan_.start;
    for (const Leg& leg : plan_.legs) {
      const std::int64_t leave = std::max(leg.leave, now + leg.stay);
      if (leave > now) stay(here, now, leave);
      now = go(here, leg, leave);
      here = leg.to;
    }
    stay(here, now, std::max(plan_.end, now + plan_.stay));
  }

 private:
  /// The road between two places is always the same one.
  const Road& roadBetween(std::size_t from, std::size_t to, Mode mode) {
    const auto key = std::array{from, to, static_cast<std::size_t>(mode)};
    const auto known = roads_.find(key);
    if (known != roads_.end()) return known->second;
    const Coordinate low = plan_.places[std::min(from, to)].at, high = plan_.places[std::max(from, to)].at;
    const Random random({result_.request.seed, kRoads, std::min(from, to), std::max(from, to), key[2]});
    const Road road = layRoad(low, high, mode, random);
    return roads_.emplace(key, from < to ? road : reversed(road)).first->second;
  }

  void add(const Fix& fix) { result_.fixes.push_back(fix); }

  /// A phone that lies still is asked ever less often where it is, and after some minutes only when the system knows of
  /// a change: every 5 to 35 minutes, as significant changes come.
  void stay(std::size_t place, std::int64_t from, std::int64_t to) {
    Random random({result_.request.seed, kStays, result_.truth.stays.size()});
    const Spot spot = standingAt(plan_.places[place].at);
    const std::size_t before = result_.fixes.size();
    int count = 0;
    for (std::int64_t now = from; now < to; ++count) {
      add(receiver_.indoors(now, spot));
      const double seconds = count < 6 ? 5 : count < 11 ? 15.0 * (1 << (count - 6)) : random.between(300, 2100);
      now += std::llround(seconds) * 1000;
    }
    result_.truth.stays.push_back({place, from, to, result_.fixes.size() - before});
  }

  std::int64_t go(std::size_t from, const Leg& leg, std::int64_t leave) {
    const Road& road = roadBetween(from, leg.to, leg.mode);
    const Travel way = travel(road, leg.mode, result_.request.rate,
                              Random({result_.request.seed, kTrips, result_.truth.trips.size()}));
    Truth::Trip trip{from, leg.to, leg.mode, leave, leave + way.ms, road.length(), 0, {}};
    receiver_.wake(leave);
    std::size_t near = 0;
    Sky before = Sky::Open;
    for (const Moment& moment : way.moments) {
      const std::int64_t now = leave + moment.ms;
      const Sky sky = skyAt(road, moment.along);
      if (sky == Sky::Tunnel && before != Sky::Tunnel) trip.tunnels.push_back({now, now});
      if (sky == Sky::Tunnel) trip.tunnels.back().second = now;
      before = sky;
      const auto fix = receiver_.observe(now, spotAt(road, moment.along, near), moment.speed, sky);
      if (!fix) continue;
      add(*fix);
      ++trip.fixes;
    }
    result_.truth.trips.push_back(trip);
    return trip.arrival;
  }

  const Plan& plan_;
  Simulation& result_;
  Receiver receiver_;
  std::map<std::array<std::size_t, 3>, Road> roads_;
};

}  // namespace

Simulation simulate(Request request) {
  Simulation result;
  result.request = taken(request);
  const Plan plan = planOf(result.request);
  Phone(plan, result).follow();
  return result;
}

}  // namespace tarvo::simulation
