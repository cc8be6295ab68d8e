/// @file
/// A prediction.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Value.h>

namespace tarvo {

/// What the backend predicts of the user's next trip. A plain value.
///
/// Threads: as a std::string. Errors: throws nothing but std::bad_alloc; what cannot be read is absent.
class TARVO_API Trip {
 public:
  std::int64_t id = 0;                    ///< the backend's number of the prediction
  platform::Dictionary route;             ///< GeoJSON of the predicted route; no operation reads it
  platform::Dictionary next_destination;  ///< GeoJSON FeatureCollection, from which the operations take the route
  std::string startTime;                  ///< as the backend sent it: 2017-03-02T08:15:30.123+0000
  std::string ArrivalTime;                ///< in the same form
  double destination_lon = -200;          ///< degrees; -200: unset
  double destination_lat = -200;          ///< degrees; -200: unset
  double probability = 0;                 ///< as the backend sent it
  std::string start_name;                 ///< of the place that it begins at
  std::string arrival_name;               ///< of the place that it leads to
  double duration = 0;                    ///< as the backend sent it

  /// The coordinates of the route's first feature, [longitude, latitude] pairs; absent without a list of them.
  std::optional<platform::Array> tripToArray() const;
  /// The same as fixes of the present moment; absent when one of the coordinates is not a pair of numbers.
  std::optional<std::vector<platform::CLLocation>> toLocations() const;
  /// The same as coordinates; absent as those.
  std::optional<std::vector<platform::CLLocationCoordinate2D>> toLocationCoordinate2D() const;
  /// `next_destination`; never absent.
  std::optional<platform::Dictionary> toGeoJson() const { return next_destination; }
  /// The first point of the route, as a fix of the present moment; absent when that is no pair of numbers.
  std::optional<platform::CLLocation> getStartTrip() const;
  /// The destination, as a fix of the present moment; never absent: (-200, -200) while it is unset.
  std::optional<platform::CLLocation> getNextDestination() const;
  /// The start time in the zone of the device; absent when it is unset or cannot be read.
  std::optional<std::string> getStartTime() const;
  /// `ArrivalTime`; never absent.
  std::optional<std::string> getArrivalTime() const { return ArrivalTime; }
  double getProbability() const { return probability; }        ///< `probability`
  double getDuration() const { return duration; }              ///< `duration`
  std::string getStartName() const { return start_name; }      ///< `start_name`
  std::string getArrivalName() const { return arrival_name; }  ///< `arrival_name`
};

}  // namespace tarvo
