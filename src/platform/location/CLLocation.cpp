#include <tarvo/platform/CLLocation.h>

#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Text.h"
#include "platform/location/Geodesy.h"

namespace tarvo::platform {

double CLLocation::distanceFrom(const CLLocation& other) const {
  return geodesicWay(other.coordinate, coordinate).metres;
}

std::string CLLocation::description() const { return concat(*this); }

void append(TextBuilder& out, const CLLocation& fix) {
  append(out, "<", fix.coordinate, "> +/- ", Fixed{fix.horizontalAccuracy, 2}, "m (speed ", Fixed{fix.speed, 2},
         " mps / course ", Fixed{fix.course, 2}, ") @ ", LocalizedTime{fix.timestamp});
}

}  // namespace tarvo::platform
