/// @file
/// A fix, and a point on the globe.
#pragma once

#include <optional>
#include <string>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// A point on the WGS 84 ellipsoid. Values are taken as they are: an unset coordinate of the SDK is (-200, -200).
struct CLLocationCoordinate2D {
  double latitude = 0;   ///< degrees north, -90 to 90
  double longitude = 0;  ///< degrees east, -180 to 180
  bool operator==(const CLLocationCoordinate2D&) const = default;
};

/// One fix of a receiver. A plain value; threads as a double.
struct TARVO_API CLLocation {
  CLLocationCoordinate2D coordinate;  ///< WGS 84
  double altitude = 0;                ///< metres above sea level
  double horizontalAccuracy = 0;      ///< metres; negative: the coordinate is invalid
  double verticalAccuracy = -1;       ///< metres; negative: the altitude is invalid
  double course = -1;                 ///< degrees clockwise from true north, 0 to 360; negative: unknown
  double speed = -1;                  ///< metres per second; negative: unknown
  Date timestamp;                     ///< when the receiver made the fix; left out it is 1970
  std::optional<int> floor;           ///< of a building, 0 at the ground; absent outside and where nobody knows

  /// The way to `other` in metres, along the shortest line on the WGS 84 ellipsoid (Karney 2013).
  double distanceFrom(const CLLocation& other) const;
  /// As log lines print it, the time in the zone of the device:
  /// `<+48.13750000,+11.57550000> +/- 5.00m (speed 1.20 mps / course 90.00) @ 4/1/09, 12:40:22 PM …`
  std::string description() const;

  bool operator==(const CLLocation&) const = default;
};

}  // namespace tarvo::platform
