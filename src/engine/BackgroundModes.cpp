#include "engine/BackgroundModes.h"

#include <tarvo/ActivationMode.h>
#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "settings/Names.h"
#include "settings/Settings.h"

namespace tarvo {

using platform::UIApplication;
using platform::UIApplicationState;
using platform::UIDevice;
using platform::UIDeviceBatteryState;

namespace {

bool applicationIsActive() { return UIApplication::shared().applicationState() == UIApplicationState::active; }

}  // namespace

bool isOnMainsPower(UIDeviceBatteryState state) {
  return state == UIDeviceBatteryState::charging || state == UIDeviceBatteryState::full;
}

BackgroundModes::BackgroundModes(EngineState& state, platform::CLLocationManager& locationManager,
                                 Collection& collection, Geofencing& geofencing, NetworkManager& networkManager)
    : state_(state),
      locationManager_(locationManager),
      collection_(collection),
      geofencing_(geofencing),
      networkManager_(networkManager) {}

void BackgroundModes::foregroundMode() {
  state_.serialQueue.async([this] { switchToForeground(); });
}

void BackgroundModes::backgroundMode() {
  state_.serialQueue.async([this] { switchToBackground(); });
}

void BackgroundModes::switchToForeground() {
  if (state_.isBackgroundMode.get() == false) return;
  // Judged now, when the switch runs, not when it was asked for.
  const bool active = applicationIsActive();
  if (state_.tarvoStarted && active) networkManager_.recreateBackgroundSession(names::kBackgroundSession);
  state_.isBackgroundMode.set(false);
  if (state_.tarvoStarted) collection_.noteObstacle();
  locationManager_.setDesiredAccuracy(state_.desiredAccuracyForeground);
  locationManager_.setDistanceFilter(state_.distanceFilterForeground);
  // Regions and significant changes are only torn down when the application is really active: a switch by charging
  // in the background keeps them beside the standard service.
  if (state_.geofencingStarted) {
    Log::debug(active ? "LocationManager.foregroundMode [loc] stop:geofencing start:standard-service mainThread:"
                      : "LocationManager.foregroundMode [loc] start:standard-service mainThread:",
               mainThread());
    if (active) geofencing_.cancelGeofencing();
    locationManager_.startUpdatingLocation();
  } else {
    Log::debug(active
                   ? "LocationManager.foregroundMode [loc] stop:significant-change start:standard-service mainThread:"
                   : "LocationManager.foregroundMode [loc] start:standard-service mainThread:",
               mainThread());
    if (active) locationManager_.stopMonitoringSignificantLocationChanges();
    locationManager_.startUpdatingLocation();
    state_.currentLocalisationMethod.set(std::string(method::kStandard));
  }
}

void BackgroundModes::switchToBackground() {
  if (state_.isBackgroundMode.get() == true) return;
  state_.isBackgroundMode.set(true);
  if (state_.tarvoStarted) collection_.noteObstacle();
  locationManager_.setDesiredAccuracy(state_.desiredAccuracyBackground);
  locationManager_.setDistanceFilter(state_.distanceFilterBackground);
  if (!state_.geofencingStarted) {
    locationManager_.stopUpdatingLocation();
    geofencing_.startGeofencing();
    Log::debug("LocationManager:backgroundMode [loc] stop:standard-service start:geofencing mainThread:", mainThread());
    state_.currentLocalisationMethod.set(std::string(method::kRegions));
  }
  locationManager_.stopUpdatingLocation();
  locationManager_.startMonitoringSignificantLocationChanges();
  Log::debug("LocationManager:backgroundMode [loc] stop:standard-service start:significant-change mainThread:",
             mainThread());
  const bool regions = state_.currentLocalisationMethod.get() == method::kRegions;
  state_.currentLocalisationMethod.set(
      std::string(regions ? method::kRegionsAndSignificantChange : method::kSignificantChange));
}

void BackgroundModes::switchByBattery() {
  if (isOnMainsPower(UIDevice::current().batteryState()))
    foregroundMode();
  else
    backgroundMode();
}

std::string_view BackgroundModes::batteryChanged() {
  const UIDeviceBatteryState battery = UIDevice::current().batteryState();
  state_.currentBatteryState = battery;
  std::string_view event;
  if (isOnMainsPower(battery)) {
    foregroundMode();
    event = action::kPowerPlug;
  } else if (battery == UIDeviceBatteryState::unplugged) {
    if (UIApplication::shared().applicationState() == UIApplicationState::background) backgroundMode();
    event = action::kPowerUnplug;
  } else {
    return {};
  }
  Log::debug("LocationManager:handleNotification [event] [battery] BATTERY-STATE-CHANGED:",
             static_cast<std::int64_t>(battery), " mainThread:", mainThread());
  return event;
}

void BackgroundModes::handleNotification(const std::string& name) {
  if (!state_.tarvoStarted) return;
  const bool foregroundOnly = Settings::shared().activateStatus.get() == mode::kLocalForeground;
  std::string_view event;
  if (name == platform::UIApplicationDidEnterBackgroundNotification) {
    switchByBattery();
    // With when-in-use permission alone the service stops when the application leaves the screen.
    if (foregroundOnly) collection_.stop();
    Log::debug("LocationManager:handleNotification [event] BACKGROUND mainThread:", mainThread());
    event = action::kAppPaused;
  } else if (name == platform::UIApplicationDidBecomeActiveNotification) {
    foregroundMode();
    Log::debug("LocationManager:handleNotification [event] ACTIVE mainThread:", mainThread());
    event = action::kAppResumed;
  } else if (name == platform::UIApplicationDidFinishLaunchingNotification) {
    switchByBattery();
    if (foregroundOnly) {
      collection_.start();
      locationManager_.startUpdatingLocation();
    }
    Log::debug("LocationManager:handleNotification [event] STARTED mainThread:", mainThread());
    event = action::kAppStarted;
  } else if (name == platform::UIDeviceBatteryStateDidChangeNotification) {
    event = batteryChanged();
  }
  if (!event.empty()) collection_.recordEvent(event);
}

std::string BackgroundModes::getAppState() {
  switch (UIApplication::shared().applicationState()) {
    case UIApplicationState::inactive:
      return "app_inactive";
    case UIApplicationState::background:
      return std::string(action::kAppPaused);
    default:
      return std::string(action::kAppResumed);
  }
}

}  // namespace tarvo
