#pragma once

#include <vector>

#include <tarvo/platform/CLLocation.h>

namespace tarvo {

/// The smallest rectangle of latitudes and longitudes that holds every point given; degrees, -200 while there is
/// none. It does not know that the antimeridian wraps.
class BoundingBox {
 public:
  void add(platform::CLLocationCoordinate2D point);

  double minimumLongitude() const { return longitude_.minimum; }
  double maximumLongitude() const { return longitude_.maximum; }
  double minimumLatitude() const { return latitude_.minimum; }
  double maximumLatitude() const { return latitude_.maximum; }
  /// South-west, north-east.
  std::vector<platform::CLLocationCoordinate2D> corners() const;

 private:
  static constexpr double kUnset = -200.0;
  struct Range {
    double minimum = kUnset;
    double maximum = kUnset;
    void add(double value);
  };
  Range longitude_, latitude_;
};

}  // namespace tarvo
