#include "engine/Collection.h"

#include <tarvo/ActivationMode.h>
#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/location/Geodesy.h"
#include "records/Positions.h"
#include "settings/Names.h"
#include "settings/Settings.h"
#include "store/Locations.h"

namespace tarvo {

using platform::CLAuthorizationStatus;
using platform::CLLocation;

namespace {

std::int64_t number(CLAuthorizationStatus status) { return static_cast<std::int64_t>(status); }

}  // namespace

Collection::Collection(EngineState& state, platform::CLLocationManager& locationManager, ObjectStore& store,
                       NetworkManager& networkManager, Ledger& ledger)
    : state_(state),
      locationManager_(locationManager),
      store_(store),
      networkManager_(networkManager),
      ledger_(ledger) {}

void Collection::start() {
  if (Settings::shared().activateStatus.get() >= mode::kLocalForeground) {
    locationManager_.startUpdatingLocation();
    state_.tarvoStarted = true;
    noteObstacle();
    recordEvent(action::kStarting);
  }
  Log::debug("LocationManager:start [loc] [tarvo] mainThread:", mainThread());
  takeUpTransfers();
}

void Collection::takeUpTransfers() {
  if (Settings::shared().activateStatus.get() >= mode::kBackendBackground) networkManager_.takeUpTransfers();
}

void Collection::stop() {
  state_.serialQueue.sync([this] {
    locationManager_.stopUpdatingLocation();
    state_.tarvoStarted = false;
    noteObstacle();
    Log::debug("LocationManager:stop [loc] [tarvo] mainThread:", mainThread());
  });
}

void Collection::stopLocationUpdate() {
  setStopReceiveLocationUpdate(true, "LocationManager:stopLocationUpdate [loc] [tarvo] mainThread:");
}

void Collection::requestLocationUpdate() {
  setStopReceiveLocationUpdate(false, "LocationManager:requestLocationUpdate [loc] [tarvo] mainThread:");
}

void Collection::setStopReceiveLocationUpdate(bool stopped, std::string_view message) {
  state_.serialQueue.sync([&] {
    state_.stopReceiveLocationUpdate = stopped;
    Log::debug(message, mainThread());
  });
}

std::optional<GapCause> Collection::obstacle() const {
  if (!state_.tarvoStarted || Settings::shared().activateStatus.get() < mode::kLocalForeground)
    return GapCause::stopped;
  const CLAuthorizationStatus status = platform::CLLocationManager::authorizationStatus();
  const bool isPermitted =
      status == CLAuthorizationStatus::authorizedAlways || status == CLAuthorizationStatus::authorizedWhenInUse;
  if (!isPermitted || !platform::CLLocationManager::locationServicesEnabled()) return GapCause::notPermitted;
  if (state_.isBackgroundMode.get() == true) return GapCause::background;
  return std::nullopt;
}

CLAuthorizationStatus Collection::checkAndRequestLocationAuthorization(std::int64_t mode) {
  const CLAuthorizationStatus current = platform::CLLocationManager::authorizationStatus();
  Log::debug("LocationManager:checkAndRequestLocationAuthorization [loc] status:", number(current),
             " mainThread:", mainThread());
  if (mode == mode::kLocalForeground) {
    if (current != CLAuthorizationStatus::authorizedWhenInUse) locationManager_.requestWhenInUseAuthorization();
  } else if (current != CLAuthorizationStatus::authorizedAlways) {
    locationManager_.requestAlwaysAuthorization();
  }
  return current;
}

void Collection::requestAgainLocationAuthorization() {
  Log::debug("LocationManager:requestAgainLocationAuthorization -> mainThread:", mainThread());
  platform::Alert alert;
  alert.title = "Location authorization required";
  alert.message =
      "This application needs your authorization to use location service. Please enable it in Settings to continue.";
  alert.actions.push_back({"Settings", /*isCancel=*/false, [] {
                             platform::UIApplication::shared().openURL(platform::UIApplicationOpenSettingsURLString);
                           }});
  alert.actions.push_back({"Cancel", /*isCancel=*/true, {}});
  platform::UIApplication::shared().present(std::move(alert));
}

std::optional<CLLocation> Collection::getLastLocation() {
  if (checkAndRequestLocationAuthorization(Settings::shared().activateStatus.get()) == CLAuthorizationStatus::denied)
    requestAgainLocationAuthorization();
  std::optional<CLLocation> last;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    const auto stored = Locations::getLastLocation(context);
    if (stored) last = fixOf(stored->record(), Missing::givesNoFix);
  });
  if (last)
    Log::debug("LocationManager:getLastLocation [loc] [tarvo] lastLoc:", last->description(),
               " mainThread:", mainThread());
  return last;
}

void Collection::addNewLocationToDatabase(std::vector<CLLocation> fixes, std::string_view activity,
                                          std::string_view method, std::string_view serviceaction) {
  Log::debug("LocationManager:addNewLocationToDatabase [loc] loc:", fixes.size(), " mainThread:", mainThread());
  const std::uint64_t era = Settings::shared().erasures.load();
  if (Settings::shared().activateStatus.get() < mode::kLocalForeground) return;
  state_.serialQueueLocation.async([this, era, fixes = std::move(fixes), activity = std::string(activity),
                                    method = std::string(method), serviceaction = std::string(serviceaction)] {
    auto& context = store_.managedObjectContext();
    context.performAndWait([&] {
      if (era != Settings::shared().erasures.load()) return;
      for (const auto& fix : fixes) {
        Log::debug("LocationManager:addNewLocationToDatabase [loc] loc:", fix, " mainThread:", mainThread());
        if (!Locations::addLocation(fix, activity, method, context, serviceaction)) continue;
        ledger_.didStore(obstacle());
        store_.saveContext();
        platform::faultPoint("intake: saved");
      }
    });
  });
}

void Collection::recordEvent(std::string_view serviceaction) {
  if (const auto last = getLastLocation())
    addNewLocationToDatabase({*last}, state_.currentActivity, method::kEvent, serviceaction);
}

void Collection::didChangeAuthorization(CLAuthorizationStatus status) {
  state_.serialQueue.async([this, status] {
    if (!state_.tarvoStarted) return;
    noteObstacle();
    std::string_view event;
    switch (status) {
      case CLAuthorizationStatus::authorizedAlways:
      case CLAuthorizationStatus::authorizedWhenInUse:
        event = action::kEnabled;
        break;
      case CLAuthorizationStatus::restricted:
      case CLAuthorizationStatus::denied:
        event = action::kDisabled;
        break;
      default:
        Log::debug("LocationManager:didChangeAuthorization [loc] unknown status:", number(status));
        return;
    }
    Log::debug("LocationManager:didChangeAuthorization [loc] status:", number(status));
    recordEvent(event);
  });
}

}  // namespace tarvo
