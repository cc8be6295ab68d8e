#pragma once

#include <string>
#include <string_view>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>

#include "engine/Collection.h"
#include "engine/EngineState.h"
#include "engine/Geofencing.h"
#include "platform/location/CLLocationManager.h"

namespace tarvo {

/// Charging or full.
bool isOnMainsPower(platform::UIDeviceBatteryState state);

/// Runs the location service in one of two configurations, foreground and background, and follows the application's
/// life and the battery. A device on mains power always runs the foreground configuration.
///
/// Threads: both switches are queued on `serialQueue` and return at once; `handleNotification` runs on the thread that
/// posts the notification and may wait for `serialQueue`. Errors: never throws.
class BackgroundModes {
 public:
  BackgroundModes(EngineState& state, platform::CLLocationManager& locationManager, Collection& collection,
                  Geofencing& geofencing, NetworkManager& networkManager);

  void foregroundMode();
  void backgroundMode();
  void handleNotification(const std::string& name);

  static std::string getAppState();

 private:
  void switchToForeground();
  void switchToBackground();
  /// By the device's battery: charging or full runs in the foreground configuration wherever the application is.
  void switchByBattery();
  /// The event word of a battery change, empty for none.
  std::string_view batteryChanged();

  EngineState& state_;
  platform::CLLocationManager& locationManager_;
  Collection& collection_;
  Geofencing& geofencing_;
  NetworkManager& networkManager_;
};

}  // namespace tarvo
