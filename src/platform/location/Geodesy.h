#pragma once

#include <tarvo/platform/CLLocation.h>

#include "platform/foundation/TextBuilder.h"

namespace tarvo::platform {

/// The shortest way between two points on the WGS 84 ellipsoid.
struct GeodesicWay {
  double metres;
  double azimuthDegrees;  ///< at its end, clockwise from north, 0 to below 360
};

GeodesicWay geodesicWay(const CLLocationCoordinate2D& from, const CLLocationCoordinate2D& to);

/// A number printed in fixed notation with that many decimals, rounded by its exact binary value (2.675 gives 2.67),
/// with a plus sign before what is not negative if `plusSign` is set.
struct Fixed {
  double value;
  int decimals;
  bool plusSign = false;
};
void append(TextBuilder& out, const Fixed& number);

/// `+48.13750000,+11.57550000`
void append(TextBuilder& out, const CLLocationCoordinate2D& coordinate);
/// As `CLLocation::description`.
void append(TextBuilder& out, const CLLocation& fix);

}  // namespace tarvo::platform
