#include "platform/location/Geodesy.h"

#include <GeographicLib/Geodesic.hpp>
#include <array>
#include <charconv>
#include <cmath>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

GeodesicWay geodesicWay(const CLLocationCoordinate2D& from, const CLLocationCoordinate2D& to) {
  double metres = 0;
  double startAzimuth = 0;
  double endAzimuth = 0;
  GeographicLib::Geodesic::WGS84().Inverse(from.latitude, from.longitude, to.latitude, to.longitude, metres,
                                           startAzimuth, endAzimuth);
  // Adding 360 to a tiny negative azimuth rounds to 360 itself.
  if (endAzimuth < 0) endAzimuth += 360;
  if (endAzimuth >= 360) endAzimuth = 0;
  return {metres, endAzimuth};
}

std::string fixedText(double value, int decimals, bool plusSign) {
  std::array<char, 400> digits;  // the largest double has 309 digits before the point
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, decimals).ptr;
  std::string text(plusSign && !std::signbit(value) ? "+" : "");
  return text.append(digits.data(), end);
}

std::string coordinateText(const CLLocationCoordinate2D& coordinate) {
  return concat(fixedText(coordinate.latitude, 8, true), ",", fixedText(coordinate.longitude, 8, true));
}

}  // namespace tarvo::platform
