#include "engine/GeofenceRadii.h"

#include <utility>

namespace tarvo {

bool isUsableSpeed(double metresPerSecond) { return metresPerSecond != -1.0 && metresPerSecond != 0.0; }

double assumedSpeed(double metresPerSecond) {
  // Upper bound of the band, inclusive, and the speed assumed in it.
  static constexpr std::pair<double, double> kBands[] = {{1.388, 2.0}, {5.556, 6.0},     {13.889, 13.889},
                                                         {25.0, 25.0}, {36.111, 36.111}, {83.333, 83.333}};
  for (const auto& [bound, speed] : kBands)
    if (metresPerSecond <= bound) return speed;
  return 100.0;
}

double ringRadius(double horizontalAccuracy, double lookAhead, double age, double speed) {
  return horizontalAccuracy * 0.5 * 3.0 + (lookAhead + age) * speed;
}

double fallbackRadius(double horizontalAccuracy, double fraction) { return horizontalAccuracy * 0.5 * fraction; }

double measuredSpeed(double metres, double seconds) { return metres / seconds; }

}  // namespace tarvo
