#include <tarvo/Tarvo.h>

#include <tarvo/HostKeys.h>
#include <tarvo/Version.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "engine/EngineParts.h"
#include "facade/TarvoCore.h"
#include "log/Log.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/WorkInFlight.h"
#include "records/LatestPrediction.h"
#include "settings/Names.h"
#include "settings/Settings.h"

namespace tarvo {

using platform::CLAuthorizationStatus;
using platform::UserDefaults;

namespace {

/// `activate` writes the mode under one key and this number under the other. The mode of an earlier process is taken up
/// only if the first key holds this number too, and then the second one is read: a relaunch starts deactivated unless
/// mode 2 was active. This is intended; the keys mark that the SDK was activated and do not store its mode.
constexpr std::int64_t kMarkerValue = 2;

}  // namespace

const char* version() { return TARVO_VERSION_STRING; }

std::int64_t Tarvo::ACTIVATE_STATUS() { return Settings::shared().activateStatus.get(); }
void Tarvo::setACTIVATE_STATUS(std::int64_t mode) { Settings::shared().activateStatus.set(mode); }
std::string Tarvo::tarvoapiKey() { return Settings::shared().tarvoapiKey.get(); }
void Tarvo::setTarvoapiKey(std::string key) { Settings::shared().tarvoapiKey.set(std::move(key)); }
std::string Tarvo::clientID() { return Settings::shared().clientID(); }
bool Tarvo::setClientID(std::string_view identifier) { return Settings::shared().setClientID(identifier); }
std::string Tarvo::bundleID() { return Settings::shared().bundleID.get(); }
void Tarvo::setBundleID(std::string identifier) { Settings::shared().bundleID.set(std::move(identifier)); }
std::string Tarvo::deviceToken() { return Settings::shared().deviceToken.get(); }
void Tarvo::setDeviceToken(std::string token) { Settings::shared().deviceToken.set(std::move(token)); }
bool Tarvo::tokenSent() { return Settings::shared().tokenSent.get(); }
void Tarvo::setTokenSent(bool sent) { Settings::shared().tokenSent.set(sent); }
const std::string& Tarvo::backgroundSessionID() { return LocationManager::backgroundSessionID(); }
std::map<std::string, std::string> Tarvo::SET_TAGS_LIST() { return Settings::shared().tagsToSet.get(); }
void Tarvo::setSET_TAGS_LIST(std::map<std::string, std::string> tags) {
  Settings::shared().tagsToSet.set(std::move(tags));
}
std::vector<std::string> Tarvo::UNSET_TAGS_LIST() { return Settings::shared().tagsToUnset.get(); }
void Tarvo::setUNSET_TAGS_LIST(std::vector<std::string> names) { Settings::shared().tagsToUnset.set(std::move(names)); }
Trip Tarvo::LastPrediction() { return latestPrediction().get(); }
void Tarvo::setLastPrediction(Trip prediction) { latestPrediction().set(std::move(prediction)); }

Tarvo::Tarvo() : core_(std::make_shared<Core>()) {
  Settings& settings = Settings::shared();
  UserDefaults& defaults = UserDefaults::standard();
  if (defaults.integer(names::kKeyMode) == kMarkerValue)
    settings.activateStatus.set(defaults.integer(names::kKeyMarker));
  core_->locationManager.setDelegate(core_);
  if (const auto client = infoPropertyListText(keys::kClientID)) settings.setClientID(*client);
}

Tarvo::Tarvo(std::shared_ptr<Core> core) : core_(std::move(core)) {}

LocationManager& Tarvo::locationManager() const { return core_->locationManager; }
UserDefaults& Tarvo::defaults() const { return UserDefaults::standard(); }
std::shared_ptr<TarvoDelegate> Tarvo::delegate() const { return core_->delegate.get(); }
void Tarvo::setDelegate(std::shared_ptr<TarvoDelegate> delegate) {
  const bool hears = delegate != nullptr;
  core_->delegate.set(std::move(delegate));
  if (hears) core_->locationManager.setDelegate(core_);
}

void Tarvo::activate(std::int64_t service) {
  LocationManager& engine = core_->locationManager;
  Settings::shared().activateStatus.set(service);
  UserDefaults::standard().set(names::kKeyMode, service);
  platform::faultPoint("activate: mode kept without its marker");
  UserDefaults::standard().set(names::kKeyMarker, kMarkerValue);
  platform::faultPoint("activate: mode kept");
  if (service == DEACTIVE_ALL) {
    engine.stop();
    return;
  }
  if (engine.checkAndRequestLocationAuthorization(service) == CLAuthorizationStatus::denied)
    engine.requestAgainLocationAuthorization();
  if (!engine.tarvoStarted())
    engine.start();
  else
    EngineParts::of(engine).collection.takeUpTransfers();  // as if it were started in this mode
  engine.requestLocationUpdate();
  if (service == BACKEND_BACKGROUND || service == BACKEND_GEOPROFILE) {
    setApiKeySecret(NetworkManager::apiKeySecret());
    platform::UIApplication::shared().registerForRemoteNotifications();
  }
}

void Tarvo::serviceConnect() { core_->locationManager.start(); }

void Tarvo::requestLocationUpdate() {
  if (ACTIVATE_STATUS() != DEACTIVE_ALL) core_->locationManager.requestLocationUpdate();
}

void Tarvo::stopLocationUpdate() { core_->locationManager.stopLocationUpdate(); }

std::optional<platform::CLLocation> Tarvo::getCurrentLocation() {
  const std::int64_t mode = ACTIVATE_STATUS();
  if (mode == DEACTIVE_ALL) return std::nullopt;
  LocationManager& engine = core_->locationManager;
  if (engine.checkAndRequestLocationAuthorization(mode) == CLAuthorizationStatus::denied)
    engine.requestAgainLocationAuthorization();
  return engine.getLastLocation();
}

std::optional<LocationsHistory> Tarvo::getLocationHistory(int format, std::optional<platform::Date> since,
                                                          std::optional<platform::Date> until) {
  LocationManager& engine = core_->locationManager;
  if (format == TARVO_FORMAT_RAW && ACTIVATE_STATUS() >= LOCAL_BACKGROUND) {
    auto history = engine.getLocationhistory(since, until);
    if (!history.locations.empty()) return history;
  } else if (format == TARVO_FORMAT_EXTRAPOLATED && ACTIVATE_STATUS() >= BACKEND_BACKGROUND) {
    auto history = engine.getLocationhistoryExtraPolated(since, until);
    if (!history.pasttrips.empty()) return history;
  }
  return std::nullopt;
}

std::optional<Trip> Tarvo::getNextTrip() {
  if (ACTIVATE_STATUS() < BACKEND_GEOPROFILE) return std::nullopt;
  return LastPrediction();
}

Tarvo::SyncStatus Tarvo::syncStatus() const { return core_->locationManager.syncStatus(); }

Health Tarvo::health() const { return EngineParts::of(core_->locationManager).health(); }

DeliveryOptions Tarvo::deliveryOptions() { return Settings::shared().deliveryOptions.get(); }
void Tarvo::setDeliveryOptions(DeliveryOptions options) { Settings::shared().deliveryOptions.set(options); }
StorageLimits Tarvo::storageLimits() { return Settings::shared().storageLimits.get(); }
void Tarvo::setStorageLimits(StorageLimits limits) { Settings::shared().storageLimits.set(limits); }

std::vector<std::string> Tarvo::getPointOfInterests() {
  std::vector<std::string> zones;
  for (auto& place : core_->locationManager.getPointOfInterest())
    if (place.zone_geo_json) zones.push_back(std::move(*place.zone_geo_json));
  return zones;
}

bool Tarvo::eraseEverything() {
  const auto failure = EngineParts::of(core_->locationManager).eraseEverything();
  core_->stop_route_match = true;
  core_->stop_prediction_update = true;
  if (failure) platform::NSLog("Tarvo : not everything is erased: " + failure->localizedDescription);
  return !failure;
}

void Tarvo::resetLocalHistory() { EngineParts::of(core_->locationManager).resetLocalHistory(); }

void Tarvo::resetBackendHistory() {
  core_->networkManager.resetBackend();
  core_->networkManager.resetGeoProfile();
}

void Tarvo::resetGeoProfileHistory() { core_->networkManager.resetGeoProfile(); }

bool Tarvo::waitUntilIdle(double seconds) {
  const bool idle = platform::WorkInFlight::waitUntilIdle(platform::Seconds(seconds));
  platform::faultPoint("end: idle");
  UserDefaults::standard().synchronize();
  EngineParts::of(LocationManager::sharedInstance()).checkpoint();
  platform::faultPoint("end: checkpoint done");
  return idle;
}

FlushResult Tarvo::flush(double seconds) {
  const FlushResult result = EngineParts::of(LocationManager::sharedInstance()).flush(platform::Seconds(seconds));
  waitUntilIdle(0);
  return result;
}

void Tarvo::probe(std::function<void()> answered) {
  EngineParts::of(LocationManager::sharedInstance()).probe(std::move(answered));
}

Tarvo::Core::Core() : locationManager(LocationManager::sharedInstance()), delegate(nullptr) {}

void Tarvo::Core::locationManagerDidReceiveNewLocations(LocationManager&,
                                                        const std::vector<platform::CLLocation>& newLocations) {
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    platform::callHost("tarvoDidReceiveNewLocations", [&] { host->tarvoDidReceiveNewLocations(self, newLocations); });
  }
}

void Tarvo::Core::locationManagerOnRouteMatched(LocationManager&, const LocationsHistory& locationsHistory) {
  if (stop_route_match) return;
  Log::debug("Tarvo locationManagerOnRouteMatched count : ", locationsHistory.pasttrips.size());
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    platform::callHost("tarvoOnRouteMatched", [&] { host->tarvoOnRouteMatched(self, locationsHistory); });
  }
}

void Tarvo::Core::onPredictionUpdateDelegate() {
  if (stop_prediction_update) return;
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    const Trip trip = latestPrediction().get();
    platform::callHost("tarvoOnPredictionUpdate", [&] { host->tarvoOnPredictionUpdate(self, trip); });
  }
}

std::optional<std::string> infoPropertyListText(std::string_view key) {
  return platform::findString(platform::Bundle::main().infoDictionary(), key);
}

}  // namespace tarvo
