#include "platform/location/Geodesy.h"

#include <GeographicLib/Geodesic.hpp>
#include <array>
#include <charconv>
#include <cmath>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

namespace {

/// The nearest number of so many decimals, found by one multiplication and proved by what that leaves over; null where
/// the proof fails: halfway between two such numbers, and where the digits are too many.
char* printRounded(char* out, double value, int decimals) {
  constexpr std::array kPowers{1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};
  const double magnitude = std::fabs(value);
  if (!(magnitude < 1e6) || decimals < 1 || decimals >= std::ssize(kPowers)) return nullptr;
  const double scale = kPowers[static_cast<std::size_t>(decimals)];
  const double nearest = std::floor(magnitude * scale + 0.5);
  // Rounded once, so it is below a half exactly when the true remainder is.
  if (!(std::fabs(std::fma(magnitude, scale, -nearest)) < 0.5)) return nullptr;
  if (std::signbit(value)) *out++ = '-';
  const auto all = static_cast<std::uint64_t>(nearest);
  const auto unit = static_cast<std::uint64_t>(scale);
  out = std::to_chars(out, out + 20, all / unit).ptr;
  *out = '.';
  std::uint64_t fraction = all % unit;
  for (char* digit = out + decimals; digit != out; --digit, fraction /= 10)
    *digit = static_cast<char>('0' + fraction % 10);
  return out + 1 + decimals;
}

}  // namespace

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
  if (char* few = printRounded(end, number.value, number.decimals))
    end = few;
  else
    end =
        std::to_chars(end, digits.data() + digits.size(), number.value, std::chars_format::fixed, number.decimals).ptr;
  out.append(std::string_view(digits.data(), end));
}

void append(TextBuilder& out, const CLLocationCoordinate2D& coordinate) {
  append(out, Fixed{coordinate.latitude, 8, true});
  out.append(',');
  append(out, Fixed{coordinate.longitude, 8, true});
}

}  // namespace tarvo::platform
