#pragma once

#include <cstddef>
#include <vector>

#include "Random.h"

namespace tarvo::simulation {

/// Degrees, WGS 84.
struct Coordinate {
  double lat = 0, lon = 0;
};

/// The faster first.
enum class Mode { Drive, Bike, Walk };

/// What a receiver sees of the sky.
enum class Sky { Open, Canyon, Tunnel };

/// A point of a road and what holds from it to the next: `limit` is the fastest speed (m/s) that the road and its
/// curve allow. `along` is the way from the road's start in metres.
struct RoadPoint {
  Coordinate at;
  double along = 0, limit = 0;
  double latPerMetre = 0, lonPerMetre = 0;  ///< degrees
};

struct Stretch {
  double from = 0, to = 0;  ///< metres along the road
  Sky sky = Sky::Open;
};

/// A road that does not exist. It has at least two points.
struct Road {
  std::vector<RoadPoint> points;
  std::vector<double> lights;      ///< metres along the road, increasing
  std::vector<Stretch> stretches;  ///< without a clear sky; increasing, apart
  double length() const { return points.back().along; }
};

/// Where someone is, which way he goes (degrees from north) and how long a metre is there.
struct Spot {
  Coordinate at;
  double course = 0;
  double latPerMetre = 0, lonPerMetre = 0;
};

/// Geodesy: metres between two places; the place at a distance in a direction (degrees from north).
double metresBetween(Coordinate from, Coordinate to);
Coordinate placeAt(Coordinate from, double azimuth, double metres);
Spot standingAt(Coordinate place);

/// A way from one place to the other over streets that turn at corners, country roads that bend and, by car, tunnels:
/// short streets near its ends, longer roads in between, 1.2 to 1.4 times as long as the straight line as ways through
/// real street networks are (Boeing 2019, "The morphology and circuity of walkable and drivable street networks").
/// The places lie at least 30 m apart.
Road layRoad(Coordinate from, Coordinate to, Mode mode, Random random);

/// The same road the other way.
Road reversed(const Road& road);

/// `near` is the number of the road point where the search begins, and becomes the one before the spot; ways are asked
/// for in increasing order.
Spot spotAt(const Road& road, double along, std::size_t& near);
Sky skyAt(const Road& road, double along);

}  // namespace tarvo::simulation
