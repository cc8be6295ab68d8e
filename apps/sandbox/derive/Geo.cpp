#include "sandbox/derive/Geo.h"

#include <GeographicLib/Geocentric.hpp>
#include <GeographicLib/Geodesic.hpp>
#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

namespace tarvo::sandbox::derive {
namespace {

using Json = nlohmann::ordered_json;
using Ring = std::vector<Place2D>;

/// A tenth of a metre is more than a receiver knows.
double rounded(double degrees) { return std::round(degrees * 1e6) / 1e6; }

Json positionsJson(const Ring& positions) {
  Json json = Json::array();
  for (const Place2D& position : positions) json.push_back({rounded(position.lon), rounded(position.lat)});
  return json;
}

/// Where the way between both meets a longitude.
Place2D meeting(Place2D one, Place2D other, double lon) {
  const double part = other.lon == one.lon ? 0 : (lon - one.lon) / (other.lon - one.lon);
  return {lon, one.lat + part * (other.lat - one.lat)};
}

/// The part of a ring with sign * lon <= sign * limit (Sutherland and Hodgman 1974, for one edge).
Ring clipped(const Ring& ring, double limit, double sign) {
  Ring kept;
  for (std::size_t i = 0; i < ring.size(); ++i) {
    const Place2D one = ring[i], next = ring[(i + 1) % ring.size()];
    const bool inside = sign * one.lon <= sign * limit, nextInside = sign * next.lon <= sign * limit;
    if (inside) kept.push_back(one);
    if (inside != nextInside) kept.push_back(meeting(one, next, limit));
  }
  return kept;
}

Json ringsJson(Ring ring) {
  ring.push_back(ring.front());
  return Json::array({positionsJson(ring)});
}

double toSegment(const Vec& point, const Vec& from, const Vec& to) {
  const Vec way = to - from, there = point - from;
  const double square = way.x * way.x + way.y * way.y + way.z * way.z;
  const double along = square > 0 ? (there.x * way.x + there.y * way.y + there.z * way.z) / square : 0;
  return chord(point, from + way * std::clamp(along, 0.0, 1.0));
}

}  // namespace

double Vec::length() const { return std::sqrt(x * x + y * y + z * z); }

Vec geocentric(Place2D at) {
  Vec vec;
  GeographicLib::Geocentric::WGS84().Forward(at.lat, at.lon, 0, vec.x, vec.y, vec.z);
  return vec;
}

Place2D onSurface(const Vec& at) {
  Place2D place;
  double height = 0;
  GeographicLib::Geocentric::WGS84().Reverse(at.x, at.y, at.z, place.lat, place.lon, height);
  return place;
}

double distance(Place2D one, Place2D other) {
  double metres = 0;
  GeographicLib::Geodesic::WGS84().Inverse(one.lat, one.lon, other.lat, other.lon, metres);
  return metres;
}

std::vector<std::size_t> simplified(const std::vector<Vec>& line, double tolerance) {
  if (line.empty()) return {};
  std::vector<std::size_t> kept = {0};
  if (line.size() > 1) kept.push_back(line.size() - 1);
  std::vector<std::pair<std::size_t, std::size_t>> open = {{0, line.size() - 1}};
  while (!open.empty()) {
    const auto [first, last] = open.back();
    open.pop_back();
    double farthest = tolerance;
    std::size_t split = 0;
    for (std::size_t i = first + 1; i < last; ++i) {
      const double off = toSegment(line[i], line[first], line[last]);
      if (off > farthest) farthest = off, split = i;
    }
    if (split == 0) continue;
    kept.push_back(split);
    open.insert(open.end(), {{first, split}, {split, last}});
  }
  std::sort(kept.begin(), kept.end());
  return kept;
}

Json routeJson(const std::vector<Place2D>& route) {
  std::vector<Ring> lines(1);
  for (std::size_t i = 0; i < route.size(); ++i) {
    if (i > 0 && std::abs(route[i].lon - route[i - 1].lon) > 180) {
      const double edge = route[i - 1].lon > 0 ? 180 : -180;
      const Place2D beyond = {route[i].lon + 2 * edge, route[i].lat};
      const Place2D cut = meeting(route[i - 1], beyond, edge);
      lines.back().push_back(cut);
      lines.push_back({{-edge, cut.lat}});
    }
    lines.back().push_back(route[i]);
  }
  Json features = Json::array();
  for (const Ring& line : lines)
    features.push_back({{"type", "Feature"},
                        {"properties", Json::object()},
                        {"geometry", {{"type", "LineString"}, {"coordinates", positionsJson(line)}}}});
  return {{"type", "FeatureCollection"}, {"features", features}};
}

Json circleJson(Place2D centre, double radius) {
  constexpr int kCorners = 24;
  Ring ring;
  for (int corner = 0; corner < kCorners; ++corner) {
    Place2D at;  // against the clock, as GeoJSON has it
    GeographicLib::Geodesic::WGS84().Direct(centre.lat, centre.lon, -360.0 * corner / kCorners, radius, at.lat, at.lon);
    at.lon = centre.lon + std::remainder(at.lon - centre.lon, 360);
    ring.push_back(at);
  }
  for (const double edge : {180.0, -180.0}) {
    const double sign = edge / 180;
    if (std::none_of(ring.begin(), ring.end(), [&](Place2D at) { return sign * at.lon > 180; })) continue;
    Ring there = clipped(ring, edge, -sign);
    for (Place2D& at : there) at.lon -= 2 * edge;
    const Ring here = clipped(ring, edge, sign);
    return {{"type", "MultiPolygon"}, {"coordinates", {ringsJson(here), ringsJson(there)}}};
  }
  return {{"type", "Polygon"}, {"coordinates", ringsJson(ring)}};
}

}  // namespace tarvo::sandbox::derive
