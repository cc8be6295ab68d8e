#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo {

/// A stored position as the host gets it: a copy that later uploads do not change. Every attribute can be absent.
struct LocationRecord {
  std::optional<double> latitude, longitude;                   ///< degrees
  std::optional<double> altitude;                              ///< metres
  std::optional<double> horizontalAccuracy, verticalAccuracy;  ///< metres; negative: invalid
  std::optional<double> course;                                ///< degrees from true north; negative: invalid
  std::optional<double> speed;                                 ///< metres per second; negative: invalid
  std::optional<std::int64_t> floor;
  std::optional<platform::Date> locationTimestamp;  ///< when the fix was made
  std::optional<platform::Date> eventTimestamp;     ///< when it was stored
  std::optional<std::int64_t> index;                ///< running number, its name towards the backend
  std::optional<std::string> serviceAction, localisationMethod, userAction, appName, appAction, identifierForVendor;
  std::optional<bool> unsent, sentWithoutACK;
};

/// A past trip as the backend rebuilt it.
struct PastTripRecord {
  std::optional<std::int64_t> pasttrip_id;
  std::optional<double> departure_lat, departure_lon, arrival_lat, arrival_lon;  ///< degrees
  std::optional<platform::Date> start_time, arrival_time;
  std::optional<std::string> route;  ///< GeoJSON FeatureCollection
};

/// A place that the backend derived.
struct PointOfInterestRecord {
  std::optional<std::int64_t> poi_id;
  std::optional<double> latitude, longitude;  ///< degrees
  std::optional<std::string> point_geo_json, zone_geo_json;
};

/// The identity that the backend gave this device.
struct UserRecord {
  std::optional<std::string> uuid;
  std::optional<std::string> timestamp;  ///< when the backend made it, as it was sent
};

}  // namespace tarvo
