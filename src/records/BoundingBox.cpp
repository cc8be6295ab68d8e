#include "records/BoundingBox.h"

namespace tarvo {

void BoundingBox::add(platform::CLLocationCoordinate2D point) {
  longitude_.add(point.longitude);
  latitude_.add(point.latitude);
}

void BoundingBox::Range::add(double value) {
  // The unset minimum lies below every coordinate, so the first value replaces it through the maximum.
  if (value < minimum) {
    minimum = value;
    if (maximum == kUnset) maximum = value;
  } else if (value > maximum) {
    maximum = value;
    if (minimum == kUnset) minimum = value;
  }
}

std::vector<platform::CLLocationCoordinate2D> BoundingBox::corners() const {
  return {{latitude_.minimum, longitude_.minimum}, {latitude_.maximum, longitude_.maximum}};
}

}  // namespace tarvo
