#include <tarvo/LocationsHistory.h>

#include "log/Log.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "records/GeoJson.h"

namespace tarvo {

using platform::CLLocation;
using platform::CLLocationCoordinate2D;
using platform::Value;

namespace {

/// The least and the greatest of the values given; both -200 while there is none.
struct Range {
  static constexpr double kUnset = -200.0;
  double minimum = kUnset, maximum = kUnset;

  void add(double value) {
    // The unset minimum lies below every coordinate, so the first value replaces it through the maximum.
    if (value < minimum) {
      minimum = value;
      if (maximum == kUnset) maximum = value;
    } else if (value > maximum) {
      maximum = value;
      if (minimum == kUnset) minimum = value;
    }
  }
};

/// The smallest rectangle that holds every point given; degrees. It does not know that the antimeridian wraps.
struct BoundingBox {
  void add(CLLocationCoordinate2D point) {
    longitude.add(point.longitude);
    latitude.add(point.latitude);
  }

  Range longitude, latitude;
};

void addPoints(BoundingBox& box, const Value& coordinates) {
  // A feature that is a single point has a bare position.
  if (const auto point = coordinateOf(coordinates)) {
    box.add(*point);
    return;
  }
  const platform::Array* positions = coordinates.asArray();
  if (positions == nullptr) return;
  for (const Value& position : *positions)
    if (const auto point = coordinateOf(position)) box.add(*point);
}

void addRoute(BoundingBox& box, const std::string& route) {
  auto parsed = platform::parseJson(route);
  if (!parsed) {
    Log::error("Tarvo:LocationHistory getBoundingBox:[error] : ", parsed.error());
    return;
  }
  const Value* features = memberOf(&parsed.value(), "features");
  if (features == nullptr || features->asArray() == nullptr) return;
  for (const Value& feature : *features->asArray()) {
    const Value* coordinates = memberOf(memberOf(&feature, "geometry"), "coordinates");
    const platform::Array* positions = coordinates ? coordinates->asArray() : nullptr;
    Log::debug("Tarvo: LocationHistory getBoundingBox coordinates.count ", " :  ",
               positions ? positions->size() : std::size_t{0});
    if (coordinates != nullptr) addPoints(box, *coordinates);
  }
}

}  // namespace

std::vector<CLLocation> LocationsHistory::toArray() const {
  std::vector<CLLocation> fixes;
  fixes.reserve(locations.size());
  const bool isWhole = PositionSource::of(locations).forEach([&fixes](const LocationRecord& position) {
    if (const auto fix = fixOf(position, Missing::takesDefault)) fixes.push_back(*fix);
    return true;
  });
  if (!isWhole) fixes.clear();
  Log::debug("Tarvo:LocationHistory:toArray [tarvo] lastLoc:", fixes.empty() ? "nil" : fixes.back().description(),
             " mainThread:", mainThread());
  return fixes;
}

std::optional<std::vector<CLLocationCoordinate2D>> LocationsHistory::getBoundingBox() const {
  if (locations.empty() && pasttrips.empty()) return std::nullopt;
  BoundingBox box;
  // Trips alone count once there are any, even if none of them can be read.
  if (pasttrips.empty()) {
    if (!PositionSource::of(locations).forEachPoint([&box](const RoutePoint& at) {
          box.add({at.latitude, at.longitude});
        }))
      return std::nullopt;
  } else {
    for (const PastTripRecord& trip : pasttrips)
      if (trip.route) addRoute(box, *trip.route);
  }
  Log::debug("Tarvo: LocationHistory getBoundingBox ----------minlon = ", box.longitude.minimum,
             " -------maxlon :", box.longitude.maximum, "--------------- ");
  Log::debug("Tarvo: LocationHistory getBoundingBox ----------minlat = ", box.latitude.minimum,
             " -------maxlat :", box.latitude.maximum, "--------------- ");
  return std::vector<CLLocationCoordinate2D>{{box.latitude.minimum, box.longitude.minimum},
                                             {box.latitude.maximum, box.longitude.maximum}};
}

std::optional<std::string> LocationsHistory::toGeoJSON(std::string_view geometry) const {
  // The text can be large: it grows behind its own log line's opening, which is cut off afterwards.
  constexpr std::string_view kOpening = "Tarvo:LocationHistory:toGeoJSON [tarvo] GeoJSON = ";
  constexpr std::size_t kTypicalBytesPerPosition = 44;
  std::string text;
  text.reserve(kOpening.size() + 256 + locations.size() * kTypicalBytesPerPosition);
  text.append(kOpening);
  if (!appendFeatureCollection(text, PositionSource::of(locations), geometry)) return std::nullopt;
  Log::debugLog(Log::kDebug, text);
  text.erase(0, kOpening.size());
  return text;
}

std::vector<std::string> LocationsHistory::toGeoJSON() const {
  std::vector<std::string> routes;
  for (const PastTripRecord& trip : pasttrips)
    if (trip.route) routes.push_back(*trip.route);
  return routes;
}

}  // namespace tarvo
