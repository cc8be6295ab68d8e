/// @file
/// What is stored, as a host gets it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <tarvo/platform/Date.h>

namespace tarvo {

/// A stored position as the host gets it: a copy that later uploads do not change. Every attribute can be absent. The
/// values of the fix are those of `platform::CLLocation`.
struct LocationRecord {
  std::optional<double> latitude;                   ///< degrees, -90 to 90
  std::optional<double> longitude;                  ///< degrees, -180 to 180
  std::optional<double> altitude;                   ///< metres above sea level
  std::optional<double> horizontalAccuracy;         ///< metres; negative: invalid
  std::optional<double> verticalAccuracy;           ///< metres; negative: invalid
  std::optional<double> course;                     ///< degrees clockwise from true north; negative: unknown
  std::optional<double> speed;                      ///< metres per second; negative: unknown
  std::optional<std::int64_t> floor;                ///< of a building, 0 at the ground
  std::optional<platform::Date> locationTimestamp;  ///< when the fix was made
  std::optional<platform::Date> eventTimestamp;     ///< when it was stored
  std::optional<std::int64_t> index;                ///< running number from 0; the backend knows it by this
  std::optional<std::string> serviceAction;         ///< why it was stored, as "loc_changed"
  std::optional<std::string> localisationMethod;    ///< how the fix came about, as "sls"
  std::optional<std::string> userAction;            ///< always "unknown"
  std::optional<std::string> appName;               ///< "ios:" and the host's bundle identifier
  std::optional<std::string> appAction;             ///< always "unused"
  std::optional<std::string> identifierForVendor;   ///< of the device
  std::optional<bool> unsent;                       ///< until the backend has acknowledged it
  std::optional<bool> sentWithoutACK;               ///< posted, and not acknowledged so far
};

/// A past trip as the backend rebuilt it. A coordinate that its answer lacked is 0.
struct PastTripRecord {
  std::optional<std::int64_t> pasttrip_id;     ///< the backend's number of the trip
  std::optional<double> departure_lat;         ///< degrees
  std::optional<double> departure_lon;         ///< degrees
  std::optional<double> arrival_lat;           ///< degrees
  std::optional<double> arrival_lon;           ///< degrees
  std::optional<platform::Date> start_time;    ///< when it began
  std::optional<platform::Date> arrival_time;  ///< when it ended
  std::optional<std::string> route;            ///< JSON text, a GeoJSON FeatureCollection
};

/// A place that means something to the user, as the backend derived it.
struct PointOfInterestRecord {
  std::optional<std::int64_t> poi_id;         ///< the backend's number of the place
  std::optional<double> latitude;             ///< degrees
  std::optional<double> longitude;            ///< degrees
  std::optional<std::string> point_geo_json;  ///< JSON text, GeoJSON: the point
  std::optional<std::string> zone_geo_json;   ///< the same: its surroundings
};

/// The identity that the backend gave this device.
struct UserRecord {
  std::optional<std::string> uuid;       ///< as the backend sent it
  std::optional<std::string> timestamp;  ///< when the backend made it, as it was sent
};

}  // namespace tarvo
