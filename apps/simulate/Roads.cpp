#include "Roads.h"

#include <GeographicLib/AzimuthalEquidistant.hpp>
#include <GeographicLib/Geodesic.hpp>
#include <GeographicLib/Math.hpp>
#include <algorithm>
#include <cmath>

namespace tarvo::simulation {
namespace {

using GeographicLib::Geodesic;

struct Vector {
  double x = 0, y = 0;
  Vector operator+(Vector other) const { return {x + other.x, y + other.y}; }
  Vector operator-(Vector other) const { return {x - other.x, y - other.y}; }
  Vector operator*(double factor) const { return {x * factor, y * factor}; }
  double dot(Vector other) const { return x * other.x + y * other.y; }
  double length() const { return std::sqrt(dot(*this)); }
  Vector across() const { return {-y, x}; }
};

/// A corner or bend of a road on the plane, in metres from its start.
struct Corner {
  Vector at;
  double limit = 0;  ///< m/s, to the next
  bool crossing = false;
};

/// Speed limits of streets, main streets, trunk roads and motorways as most countries have them: 30, 50, 70 and
/// 110 km/h.
constexpr double kStreet = 30 / 3.6, kMainStreet = 50 / 3.6, kTrunkRoad = 70 / 3.6, kMotorway = 110 / 3.6;

/// City blocks are 80 to 150 m long; a road is the longer, the farther its ends are.
constexpr double kBlock = 90, kLongestEdge = 1500, kGrowth = 0.15;

/// Where both ends are farther than this, a car takes a road outside the town.
constexpr double kCountry = 2500;

/// Cars turn at corners on a radius of some 8 m, and drivers accept about 2 m/s2 sideways (AASHTO, "A policy on
/// geometric design", side friction at low speeds).
constexpr double kCornerCut = 12, kSideways = 2;

double limitOf(double edge) { return edge < 200 ? kStreet : edge < 600 ? kMainStreet : kTrunkRoad; }

/// Degrees as they are printed or a hundredth of that: the geodesic's last bits differ between machines.
double settledDegrees(double value) { return std::round(value * 1e8) * 1e-8; }

/// A biased walk from the origin to a target over the streets of a grid, and over winding roads far from both.
class Walk {
 public:
  Walk(Vector target, Mode mode, Random& random) : target_(target), mode_(mode), random_(random) {
    const double tilt = random.uniform();  // a rotation without sine and cosine
    axes_[0] = Vector{1 - tilt * tilt, 2 * tilt} * (1 / (1 + tilt * tilt));
    axes_[1] = axes_[0].across();
  }

  std::vector<Corner> corners() {
    while ((target_ - here_).length() > 2 * kBlock) {
      const double near = std::min((target_ - here_).length(), here_.length());
      if (mode_ == Mode::Drive && near > kCountry)
        country();
      else
        street(near);
    }
    const Vector rest = target_ - here_;
    const int first = std::abs(rest.dot(axes_[0])) > std::abs(rest.dot(axes_[1])) ? 0 : 1;
    const double way = rest.dot(axes_[first]);
    if (std::abs(rest.dot(axes_[1 - first])) > 15) step(axes_[first] * way, kStreet, true);
    step(target_ - here_, kStreet, true);
    corners_.push_back({target_, 0, false});
    return corners_;
  }

 private:
  void step(Vector way, double limit, bool crossing) {
    corners_.push_back({here_, limit, crossing});
    here_ = here_ + way;
  }

  /// A road that turns little from one kilometre to the next.
  void country() {
    const Vector rest = target_ - here_;
    drift_ = std::clamp(0.6 * drift_ + 0.25 * random_.normal(), -0.5, 0.5);
    const Vector heading = rest + rest.across() * drift_;
    step(heading * (random_.between(300, 900) / heading.length()), kMotorway, false);
  }

  void street(double near) {
    const Vector rest = target_ - here_;
    const double along[] = {rest.dot(axes_[0]), rest.dot(axes_[1])};
    const double ways[] = {std::abs(along[0]), std::abs(along[1])};
    int axis = random_.chance(ways[0] / (ways[0] + ways[1])) ? 0 : 1;
    if (ways[axis] < 30) axis = 1 - axis;
    const double longest = mode_ == Mode::Walk ? 2 * kBlock : kLongestEdge;
    const double edge = std::min(std::clamp(kGrowth * near, kBlock, longest) * random_.between(0.7, 1.3), ways[axis]);
    const Vector way = axes_[axis] * (along[axis] < 0 ? -edge : edge);
    const double limit = limitOf(edge);
    if (edge < 250) return step(way, limit, true);
    // No long street is straight: it bends once or twice by some degrees.
    const Vector bend = way + axes_[axis].across() * (edge * random_.between(-0.06, 0.06));
    const double share = random_.between(0.35, 0.65);
    step(bend * share, limit, true);
    step(way - bend * share, limit, false);
  }

  const Vector target_;
  const Mode mode_;
  Random& random_;
  Vector axes_[2];
  Vector here_;
  double drift_ = 0;
  std::vector<Corner> corners_;
};

/// The points of a road on the plane, its corners rounded.
struct Line {
  std::vector<Corner> points;

  /// A parabola whose legs are `cut` long; its sharpest radius is at its middle.
  void round(const Corner& before, const Corner& corner, const Corner& after) {
    const Vector in = corner.at - before.at, out = after.at - corner.at;
    const double lengths[] = {in.length(), out.length()};
    const double cosine = in.dot(out) / (lengths[0] * lengths[1]);
    if (cosine > 0.9998) return points.push_back(corner);
    double cut = 0.45 * std::min(lengths[0], lengths[1]);
    if (cosine < 0.7) cut = std::min(cut, kCornerCut);  // at a real corner; roads bend widely
    const Vector start = corner.at - in * (cut / lengths[0]), end = corner.at + out * (cut / lengths[1]);
    const double radius = cut * (1 + cosine) / 2 / std::sqrt((1 - cosine) / 2);
    const double limit = std::min({before.limit, corner.limit, std::max(1.5, std::sqrt(kSideways * radius))});
    constexpr int kPieces = 8;
    for (int i = 0; i <= kPieces; ++i) {
      const double t = static_cast<double>(i) / kPieces;
      const Vector at = start * ((1 - t) * (1 - t)) + corner.at * (2 * t * (1 - t)) + end * (t * t);
      points.push_back({at, i < kPieces ? limit : corner.limit, i == 0 && corner.crossing});
    }
  }
};

RoadPoint onEarth(const GeographicLib::AzimuthalEquidistant& plane, Coordinate origin, Vector at) {
  RoadPoint point;
  plane.Reverse(origin.lat, origin.lon, at.x, at.y, point.at.lat, point.at.lon);
  const Spot spot = standingAt({settledDegrees(point.at.lat), settledDegrees(point.at.lon)});
  return {spot.at, 0, 0, spot.latPerMetre, spot.lonPerMetre};
}

/// Where the sky is narrow or gone. Streets between high houses are part of most towns, and a tunnel of some hundred
/// metres lies on one in three roads of a few kilometres.
std::vector<Stretch> coveredStretches(const Road& road, Mode mode, Random& random) {
  std::vector<Stretch> stretches;
  const double length = road.length();
  double along = random.between(150, 1200);
  while (along < length - 300) {
    const auto point = std::partition_point(road.points.begin(), road.points.end(),
                                            [along](const RoadPoint& other) { return other.along < along; });
    const double limit = point->limit;
    const bool tunnel = mode == Mode::Drive && limit > kStreet && random.chance(0.12);
    const bool canyon = limit <= kMainStreet && random.chance(0.4);
    const double end = along + (tunnel ? random.between(250, 900) : random.between(150, 600));
    if ((tunnel || canyon) && end < length - 150) stretches.push_back({along, end, tunnel ? Sky::Tunnel : Sky::Canyon});
    along = end + random.between(300, 1500);
  }
  return stretches;
}

/// Traffic lights stand at every third crossing or so, at least 120 m apart, never in a tunnel.
std::vector<double> placeLights(const Road& road, const std::vector<double>& crossings, Random& random) {
  std::vector<double> lights;
  double before = 0;
  for (const double crossing : crossings) {
    if (!random.chance(0.35) || crossing < before + 120 || crossing > road.length() - 60) continue;
    if (skyAt(road, crossing) == Sky::Tunnel) continue;
    lights.push_back(crossing);
    before = crossing;
  }
  return lights;
}

}  // namespace

double metresBetween(Coordinate from, Coordinate to) {
  double metres = 0;
  Geodesic::WGS84().Inverse(from.lat, from.lon, to.lat, to.lon, metres);
  return metres;
}

Coordinate placeAt(Coordinate from, double azimuth, double metres) {
  Coordinate place;
  Geodesic::WGS84().Direct(from.lat, from.lon, azimuth, metres, place.lat, place.lon);
  return {settledDegrees(place.lat), settledDegrees(place.lon)};
}

Spot standingAt(Coordinate place) {
  constexpr double kMetres = 1000;
  const auto degreesPerMetre = [](double degrees) { return settled(degrees * 1e6) * 1e-6 / kMetres; };
  double north = 0, east = 0, unused = 0;
  Geodesic::WGS84().Direct(place.lat, place.lon, 0, kMetres, north, unused);
  Geodesic::WGS84().Direct(place.lat, place.lon, 90, kMetres, unused, east);
  return {place, 0, degreesPerMetre(north - place.lat), degreesPerMetre(GeographicLib::Math::AngDiff(place.lon, east))};
}

Road layRoad(Coordinate from, Coordinate to, Mode mode, Random random) {
  const GeographicLib::AzimuthalEquidistant plane(Geodesic::WGS84());
  Vector target;
  plane.Forward(from.lat, from.lon, to.lat, to.lon, target.x, target.y);
  target = {settled(target.x), settled(target.y)};
  const std::vector<Corner> corners = Walk(target, mode, random).corners();
  Line line;
  line.points.push_back(corners.front());
  for (std::size_t i = 1; i + 1 < corners.size(); ++i) line.round(corners[i - 1], corners[i], corners[i + 1]);
  line.points.push_back(corners.back());

  Road road;
  std::vector<double> crossings;
  for (std::size_t i = 0; i < line.points.size(); ++i) {
    const Corner& corner = line.points[i];
    RoadPoint point = onEarth(plane, from, corner.at);
    if (i > 0) point.along = road.points.back().along + (corner.at - line.points[i - 1].at).length();
    point.limit = corner.limit;
    if (corner.crossing && i > 0) crossings.push_back(point.along);
    road.points.push_back(point);
  }
  road.points.back().at = to;
  road.stretches = coveredStretches(road, mode, random);
  road.lights = placeLights(road, crossings, random);
  return road;
}

Road reversed(const Road& road) {
  Road other = road;
  const double length = road.length();
  std::reverse(other.points.begin(), other.points.end());
  for (std::size_t i = 0; i < other.points.size(); ++i) {
    other.points[i].along = length - other.points[i].along;
    other.points[i].limit = i + 1 < other.points.size() ? other.points[i + 1].limit : 0;
  }
  std::reverse(other.stretches.begin(), other.stretches.end());
  for (Stretch& stretch : other.stretches) stretch = {length - stretch.to, length - stretch.from, stretch.sky};
  std::reverse(other.lights.begin(), other.lights.end());
  for (double& light : other.lights) light = length - light;
  return other;
}

Spot spotAt(const Road& road, double along, std::size_t& near) {
  while (near + 2 < road.points.size() && road.points[near + 1].along <= along) ++near;
  const RoadPoint &before = road.points[near], &after = road.points[near + 1];
  const double share = std::clamp((along - before.along) / std::max(after.along - before.along, 1e-6), 0.0, 1.0);
  double east = after.at.lon - before.at.lon;
  if (east > 180) east -= 360;
  if (east < -180) east += 360;
  const double north = after.at.lat - before.at.lat;
  Spot spot{{before.at.lat + share * north, before.at.lon + share * east}, 0, before.latPerMetre, before.lonPerMetre};
  spot.course = GeographicLib::Math::atan2d(east / before.lonPerMetre, north / before.latPerMetre);
  return spot;
}

Sky skyAt(const Road& road, double along) {
  for (const Stretch& stretch : road.stretches)
    if (stretch.from <= along && along < stretch.to) return stretch.sky;
  return Sky::Open;
}

}  // namespace tarvo::simulation
