#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/platform/CLLocation.h>

#include "engine/Collection.h"
#include "engine/EngineState.h"
#include "platform/foundation/Error.h"
#include "platform/location/CLLocationManager.h"

namespace tarvo {

/// Look-ahead times of the regions of a ring, seconds.
inline constexpr std::array<double, 5> kLookAheadSeconds{0, 5, 10, 20, 30};
/// Multiples of half the horizontal accuracy: the ring of a fix without a usable speed.
inline constexpr std::array<double, 9> kAccuracyFractions{0.1, 0.2, 0.3, 0.5, 1, 2, 3, 4, 5};

/// Whether the fix's speed can size a ring: anything but exactly -1 (invalid) and 0.
bool isUsableSpeed(double metresPerSecond);

/// The speed that a measured one is rounded up to, metres per second: walking, running, town, road, motorway, train,
/// aircraft.
double assumedSpeed(double metresPerSecond);

/// Metres that a device may be away after `lookAhead` seconds more: one and a half times the accuracy plus the way
/// since the fix. `age` may be negative.
double ringRadius(double horizontalAccuracy, double lookAhead, double age, double speed);

/// Metres; `fraction` of half the accuracy.
double fallbackRadius(double horizontalAccuracy, double fraction);

/// Follows the device in the background with a ring of circular regions sized by its speed.
///
/// Threads: arming on `serialQueue`; the region callbacks run on the location service's delivery queue.
/// Errors: never throws; without a stored position nothing is armed.
class Geofencing {
 public:
  Geofencing(EngineState& state, platform::CLLocationManager& locationManager, Collection& collection);

  /// Arms a ring around the last stored position with its own speed, or by its accuracy alone.
  void startGeofencing();
  /// Arms a ring with a measured speed, metres per second.
  void startGeofencingWithSpeed(double estimatedSpeed);
  /// Stops watching every region of the process, the host's included.
  void cancelGeofencing();

  void didStartMonitoring(const platform::CLCircularRegion& region);
  void monitoringDidFail(const platform::Error& error);
  void didEnterRegion(const platform::CLCircularRegion& region);
  void didExitRegion(const platform::CLCircularRegion& region);

 private:
  /// What both kinds of arming begin with; absent when there is nowhere to arm.
  std::optional<platform::CLLocation> prepare();
  std::vector<platform::CLCircularRegion> speedRegions(const platform::CLLocation& last, double speed) const;
  std::vector<platform::CLCircularRegion> estimateRegions(const platform::CLLocation& loc) const;
  void armed(const platform::CLLocation& center);

  EngineState& state_;
  platform::CLLocationManager& locationManager_;
  Collection& collection_;
};

}  // namespace tarvo
