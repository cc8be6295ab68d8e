#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tarvo/platform/CLLocation.h>

#include "engine/EngineState.h"
#include "engine/ServiceControl.h"
#include "platform/foundation/Error.h"
#include "platform/location/CLLocationManager.h"

namespace tarvo {

/// Follows the device in the background with a ring of circular regions sized by its speed.
///
/// Threads: arming on `serialQueue`; the region callbacks run on the location service's delivery queue.
/// Errors: never throws; without a stored position nothing is armed.
class Geofencing {
 public:
  Geofencing(EngineState& state, platform::CLLocationManager& locationManager, ServiceControl& control);

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
  ServiceControl& control_;
};

}  // namespace tarvo
