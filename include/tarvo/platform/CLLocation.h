#pragma once

#include <optional>
#include <string>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// Degrees, WGS 84. Nothing is validated: -200 means "unset" in several places.
struct CLLocationCoordinate2D {
  double latitude = 0;
  double longitude = 0;
  bool operator==(const CLLocationCoordinate2D&) const = default;
};

/// One position fix; an immutable value.
///
/// Metres, metres per second, degrees clockwise from true north. A negative accuracy, speed or course says that
/// the quantity is invalid; `floor` is absent outside buildings.
struct TARVO_API CLLocation {
  CLLocationCoordinate2D coordinate;
  double altitude = 0;
  double horizontalAccuracy = 0;
  double verticalAccuracy = -1;
  double course = -1;
  double speed = -1;
  Date timestamp;
  std::optional<int> floor;

  /// Metres along the WGS 84 geodesic (Karney 2013, by GeographicLib).
  double distanceFrom(const CLLocation& other) const;
  /// `<+48.13750000,+11.57550000> +/- 5.00m (speed 1.20 mps / course 90.00) @ 4/1/09, 12:40:22 PM …`
  std::string description() const;

  bool operator==(const CLLocation&) const = default;
};

}  // namespace tarvo::platform
