#include "platform/location/Geodesy.h"

#include <GeographicLib/Geodesic.hpp>
#include <array>
#include <charconv>
#include <cmath>

#include "platform/foundation/DateFormatter.h"
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

void append(TextBuilder& out, const Fixed& number) {
  std::array<char, 400> digits;  // the largest double has 309 digits before the point
  char* end = digits.data();
  if (number.plusSign && !std::signbit(number.value)) *end++ = '+';
  end = std::to_chars(end, digits.data() + digits.size(), number.value, std::chars_format::fixed, number.decimals).ptr;
  out.add(std::string_view(digits.data(), end));
}

void append(TextBuilder& out, const CLLocationCoordinate2D& coordinate) {
  append(out, Fixed{coordinate.latitude, 8, true});
  out.add(',');
  append(out, Fixed{coordinate.longitude, 8, true});
}

void append(TextBuilder& out, const CLLocation& fix) {
  appendAll(out, "<", fix.coordinate, "> +/- ", Fixed{fix.horizontalAccuracy, 2}, "m (speed ", Fixed{fix.speed, 2},
            " mps / course ", Fixed{fix.course, 2}, ") @ ", LocalizedTime{fix.timestamp});
}

double CLLocation::distanceFrom(const CLLocation& other) const {
  return geodesicWay(other.coordinate, coordinate).metres;
}

std::string CLLocation::description() const { return concat(*this); }

}  // namespace tarvo::platform
