#include <tarvo/Trip.h>

#include <tarvo/platform/Clock.h>

#include "log/Log.h"
#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Text.h"
#include "records/GeoJson.h"

namespace tarvo {

using platform::Array;
using platform::CLLocation;
using platform::CLLocationCoordinate2D;
using platform::Value;

namespace {

CLLocation fixAt(CLLocationCoordinate2D coordinate) {
  CLLocation fix;
  fix.coordinate = coordinate;
  fix.timestamp = platform::Clock::current()->now();
  return fix;
}

/// A prediction's positions are pairs and nothing else.
std::optional<CLLocationCoordinate2D> pairOf(const Value& position) {
  const Array* numbers = position.asArray();
  return numbers && numbers->size() == 2 ? coordinateOf(position) : std::nullopt;
}

}  // namespace

std::optional<Array> Trip::tripToArray() const {
  if (next_destination.empty()) return std::nullopt;
  Log::debug("Tarvo:tripToArray [net] [succes] trip:", next_destination);
  const Value* found = platform::find(next_destination, "features");
  const Array* features = found ? found->asArray() : nullptr;
  if (features == nullptr || features->empty()) return std::nullopt;
  Log::debug("Tarvo:tripToArray [net] [succes] featurestype ", Value(valuesUnder(*features, "type")),
             " features:", *found);
  const Array geometries = valuesUnder(*features, "geometry");
  Log::debug("Tarvo:tripToArray [net] [succes] geometrytype ", Value(valuesUnder(geometries, "type")),
             " geometry:", Value(geometries));
  const Array coordinates = valuesUnder(geometries, "coordinates");
  const Array* first = coordinates.front().asArray();
  if (first == nullptr) return std::nullopt;
  return *first;
}

std::optional<std::vector<CLLocationCoordinate2D>> Trip::toLocationCoordinate2D() const {
  const auto positions = tripToArray();
  if (!positions) return std::nullopt;
  std::vector<CLLocationCoordinate2D> coordinates;
  coordinates.reserve(positions->size());
  for (const Value& position : *positions) {
    const auto coordinate = pairOf(position);
    if (!coordinate) return std::nullopt;
    coordinates.push_back(*coordinate);
  }
  return coordinates;
}

std::optional<std::vector<CLLocation>> Trip::toLocations() const {
  const auto coordinates = toLocationCoordinate2D();
  if (!coordinates) return std::nullopt;
  std::vector<CLLocation> fixes;
  fixes.reserve(coordinates->size());
  for (const CLLocationCoordinate2D& coordinate : *coordinates) fixes.push_back(fixAt(coordinate));
  return fixes;
}

std::optional<CLLocation> Trip::getStartTrip() const {
  const auto positions = tripToArray();
  const auto coordinate = positions && !positions->empty() ? pairOf(positions->front()) : std::nullopt;
  if (!coordinate) return std::nullopt;
  return fixAt(*coordinate);
}

std::optional<CLLocation> Trip::getNextDestination() const { return fixAt({destination_lat, destination_lon}); }

std::optional<std::string> Trip::getStartTime() const {
  if (startTime.empty()) return std::nullopt;
  // "YYYY" is the week-based year, as the backend's format has it: it reads the year as written, but the local text of
  // the last days of December can carry the next one.
  platform::DateFormatter formatter("YYYY-MM-dd'T'HH:mm:ss.SSSZ", "UTC");
  const auto date = formatter.date(startTime);
  if (!date) return std::nullopt;
  formatter.setTimeZone(std::nullopt);
  std::string local = formatter.string(*date);
  Log::debug("Tarvo:getStartTime :", startTime, " : local(", local, ")");
  return local;
}

}  // namespace tarvo
