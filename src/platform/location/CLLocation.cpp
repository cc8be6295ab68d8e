#include <tarvo/platform/CLLocation.h>

#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Text.h"
#include "platform/location/Geodesy.h"

namespace tarvo::platform {

double CLLocation::distanceFrom(const CLLocation& other) const {
  return geodesicWay(other.coordinate, coordinate).metres;
}

std::string CLLocation::description() const {
  return concat("<", coordinateText(coordinate), "> +/- ", fixedText(horizontalAccuracy, 2), "m (speed ",
                fixedText(speed, 2), " mps / course ", fixedText(course, 2), ") @ ",
                localizedShortDateFullTime(timestamp));
}

}  // namespace tarvo::platform
