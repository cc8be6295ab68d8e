#pragma once

#include <string>

#include <tarvo/platform/CLLocation.h>

namespace tarvo::platform {

/// The shortest way on the WGS 84 ellipsoid.
struct GeodesicWay {
  double metres;
  double azimuthDegrees;  ///< at its end, clockwise from north, 0 to below 360
};

GeodesicWay geodesicWay(const CLLocationCoordinate2D& from, const CLLocationCoordinate2D& to);

/// `value` with that many decimals, whatever the C locale; a plus sign before what is not negative if asked for.
std::string fixedText(double value, int decimals, bool plusSign = false);

/// `<+48.13750000,+11.57550000>` without the brackets.
std::string coordinateText(const CLLocationCoordinate2D& coordinate);

}  // namespace tarvo::platform
