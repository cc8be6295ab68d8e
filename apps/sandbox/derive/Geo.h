#pragma once

#include <nlohmann/json_fwd.hpp>
#include <vector>

namespace tarvo::sandbox::derive {

/// Metres from the centre of the earth (WGS 84): distances on it know neither date line nor poles.
struct Vec {
  double x = 0, y = 0, z = 0;

  Vec operator+(const Vec& other) const { return {x + other.x, y + other.y, z + other.z}; }
  Vec operator-(const Vec& other) const { return {x - other.x, y - other.y, z - other.z}; }
  Vec operator*(double factor) const { return {x * factor, y * factor, z * factor}; }
  double length() const;
};

/// Degrees.
struct Place2D {
  double lon = 0, lat = 0;
};

Vec geocentric(Place2D at);
/// The point of the surface above or below.
Place2D onSurface(const Vec& at);

/// Metres through the earth; a hundred thousandth less than over it for 100 km.
inline double chord(const Vec& one, const Vec& other) { return (one - other).length(); }
/// Metres along the geodesic.
double distance(Place2D one, Place2D other);

/// Which points a line needs to pass all others within `tolerance` metres (Douglas and Peucker 1973), ascending, with
/// both ends.
std::vector<std::size_t> simplified(const std::vector<Vec>& line, double tolerance);

/// A GeoJSON FeatureCollection of LineStrings, one more for each time the route crosses the date line, where it is cut.
nlohmann::ordered_json routeJson(const std::vector<Place2D>& route);
/// A GeoJSON Polygon around a circle of so many metres, or two of them (MultiPolygon) where the date line cuts it.
nlohmann::ordered_json circleJson(Place2D centre, double radius);

}  // namespace tarvo::sandbox::derive
