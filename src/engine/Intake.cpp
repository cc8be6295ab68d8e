#include "engine/Intake.h"

#include <utility>

#include <tarvo/ActivationMode.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ProtocolBreak.h"
#include "platform/foundation/FatalError.h"
#include "settings/Names.h"

namespace tarvo {

using platform::CLAuthorizationStatus;
using platform::CLLocation;
using platform::Clock;
using platform::UIApplication;
using platform::UIApplicationState;
using platform::UIDevice;
using platform::UIDeviceBatteryState;

Intake::Intake(LocationManager& engine, EngineState& state, Collection& collection, BackgroundModes& modes,
               Geofencing& geofencing, UploadPipeline& pipeline)
    : engine_(engine),
      state_(state),
      collection_(collection),
      modes_(modes),
      geofencing_(geofencing),
      pipeline_(pipeline) {}

void Intake::didUpdateLocations(const std::vector<CLLocation>& locations) {
  if (!state_.tarvoStarted) return;
  if (locations.empty()) platform::fatalError("the location service delivered an empty batch");
  state_.serialQueue.async([this, batch = locations]() mutable { intakeStep(std::move(batch)); });
  // Not ordered against the intake step: a batch that is not stored yet goes out with the next pass.
  uploadPass();
  checkBattery();
  if (state_.stopReceiveLocationUpdate) return;
  if (const auto delegate = state_.delegate.get().lock())
    platform::callHost("locationManagerDidReceiveNewLocations",
                       [&] { delegate->locationManagerDidReceiveNewLocations(engine_, locations); });
}

void Intake::uploadPass() {
  state_.serialNetworkDataQueue.sync([this] { pipeline_.startPass(); });
}

void Intake::checkBattery() {
  const UIDeviceBatteryState battery = UIDevice::current().batteryState();
  if (UIApplication::shared().applicationState() != UIApplicationState::background) {
    state_.currentBatteryState = battery;
    return;
  }
  if (state_.currentBatteryState.exchange(battery) == battery) return;
  Log::debug("LocationManager:didUpdateLocations [event] [battery] newBatteryState:",
             static_cast<std::int64_t>(battery));
  if (isOnMainsPower(battery)) {
    modes_.foregroundMode();
    collection_.recordEvent(action::kPowerPlug);
  } else if (battery == UIDeviceBatteryState::unplugged) {
    modes_.backgroundMode();
    collection_.recordEvent(action::kPowerUnplug);
  }
}

void Intake::intakeStep(std::vector<CLLocation> fixes) {
  const CLLocation first = fixes.front();
  // One step: a region exit that sets "rms" meanwhile must not be lost.
  state_.currentLocalisationMethod.update([](std::string& present) {
    if (present == method::kRegionsAndSignificantChange) present = method::kSignificantChange;
  });
  const platform::Date now = Clock::current()->now();
  const platform::Seconds lastUpdateAge = now - state_.startTime.exchange(now);
  const std::string localisationMethod = state_.currentLocalisationMethod.get();
  const UIDevice& device = UIDevice::current();
  Log::debug("LocatonManager:didUpdateLocations [loc] lon:", first.coordinate.longitude,
             " lat:", first.coordinate.latitude, " date:", first.timestamp, " speed:", first.speed,
             " acc:", first.horizontalAccuracy, " locMethod:", localisationMethod,
             " lastUpdateAge:", lastUpdateAge.count(),
             " currentBatteryStatus:", static_cast<std::int64_t>(device.batteryState()),
             " batteryLevel:", device.batteryLevel(), " mainThread:", mainThread());
  collection_.addNewLocationToDatabase(std::move(fixes), state_.currentActivity, localisationMethod, action::kChanged);
  followGeofence(first, lastUpdateAge);
}

void Intake::followGeofence(const CLLocation& first, platform::Seconds lastUpdateAge) {
  // The speed estimate needs fixes at least a second apart.
  if (lastUpdateAge < platform::Seconds(1) || !state_.geofencingStarted) return;
  const auto center = state_.geofenceCenter.get();
  const double distance = center ? first.distanceFrom(*center) : -1.0;
  const double geofenceAge = (Clock::current()->now() - state_.geofencingStartTime.get()).count();
  // Whatever the division gives: the clock may have stood still, and an infinite speed counts as measured.
  const double estimatedSpeed = distance / geofenceAge;
  Log::debug("LocatonManager:didUpdateLocations [loc] [geofence] geofenceAge:", geofenceAge, " distance:", distance,
             " estimatedSpeed:", estimatedSpeed, " currentSpeed:", first.speed);
  if (estimatedSpeed > 0.0 && state_.currentLocalisationMethod.get() == method::kRegions)
    geofencing_.startGeofencingWithSpeed(estimatedSpeed);
  else
    geofencing_.startGeofencing();
}

void Intake::didFailWithError(const platform::Error& error) {
  state_.serialQueue.async([error] { Log::debug("LocationManager:didFailwithError [loc] ", error); });
}

void Intake::didFinishDeferredUpdates(const std::optional<platform::Error>& error) {
  state_.serialQueue.async([error] {
    if (!error) platform::fatalError("deferred updates finished without an error, although none were asked for");
    Log::debug("LocationManager:didFinishDeferredUpdatesWithError [loc] ", error->localizedDescription);
  });
}

void Intake::refreshLoc() {
  droppingProtocolBreaks([this] { storeRefresh(); });
}

void Intake::storeRefresh() {
  auto& defaults = platform::UserDefaults::standard();
  const std::int64_t stored = defaults.integer(names::kServiceState);
  const CLAuthorizationStatus status = collection_.checkAndRequestLocationAuthorization(mode::kBackendBackground);
  const auto number = static_cast<std::int64_t>(status);
  if (status == CLAuthorizationStatus::authorizedAlways) {
    // A handle of its own without delegate: the fix must not arrive a second time.
    const auto fix = platform::CLLocationManager().location();
    if (!fix) protocolBreak("refreshLoc: the location service has no position yet");
    collection_.addNewLocationToDatabase({*fix}, state_.currentActivity, method::kPush,
                                         stored == number ? action::kRefresh : action::kEnabled);
    defaults.set(names::kServiceState, number);
    Log::debug("LocationManager:refreshLoc [loc]: ", fix->description());
  } else {
    defaults.set(names::kServiceState, number);
    const auto fix = collection_.getLastLocation();
    Log::debug("LocationManager:refreshLoc [lastloc]: ", fix ? fix->description() : "nil");
    if (!fix) protocolBreak("refreshLoc: there is no last position");
    collection_.addNewLocationToDatabase({*fix}, state_.currentActivity, method::kPush, action::kDisabled);
  }
  uploadPass();
}

}  // namespace tarvo
