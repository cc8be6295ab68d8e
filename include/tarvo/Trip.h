#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Value.h>

namespace tarvo {

/// A prediction of the user's next trip. A plain value.
///
/// Threads: as a std::string. Errors: never throws; what cannot be read is absent.
class TARVO_API Trip {
 public:
  std::int64_t id = 0;
  platform::Dictionary route;             ///< GeoJSON of the predicted route
  platform::Dictionary next_destination;  ///< GeoJSON FeatureCollection; the conversions read it
  std::string startTime;                  ///< "YYYY-MM-dd'T'HH:mm:ss.SSSZ", as the backend sent it
  std::string ArrivalTime;
  double destination_lon = -200;  ///< degrees; -200: unset
  double destination_lat = -200;
  double probability = 0;
  std::string start_name, arrival_name;
  double duration = 0;

  /// The coordinates of the first feature, [longitude, latitude] pairs.
  std::optional<platform::Array> tripToArray() const;
  std::optional<std::vector<platform::CLLocation>> toLocations() const;
  std::optional<std::vector<platform::CLLocationCoordinate2D>> toLocationCoordinate2D() const;
  std::optional<platform::Dictionary> toGeoJson() const { return next_destination; }
  std::optional<platform::CLLocation> getStartTrip() const;
  /// Given even while the destination is unset: then (-200, -200).
  std::optional<platform::CLLocation> getNextDestination() const;
  /// The start time in the device's zone; absent when unset or unreadable.
  std::optional<std::string> getStartTime() const;
  std::optional<std::string> getArrivalTime() const { return ArrivalTime; }
  double getProbability() const { return probability; }
  double getDuration() const { return duration; }
  std::string getStartName() const { return start_name; }
  std::string getArrivalName() const { return arrival_name; }
};

}  // namespace tarvo
