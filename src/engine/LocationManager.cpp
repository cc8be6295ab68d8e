#include <tarvo/LocationManager.h>

#include <tarvo/platform/SystemLog.h>

#include <algorithm>

#include "engine/EngineParts.h"
#include "net/BackendAddress.h"
#include "platform/foundation/System.h"
#include "settings/Names.h"
#include "settings/Settings.h"
#include "store/Locations.h"

namespace tarvo {

using platform::Date;
using platform::Seconds;

namespace {

/// Of what a host gives; it would stop the process at the next request.
bool acceptsUserUUID(std::string_view uuid) {
  if (isUsableUserUUID(uuid)) return true;
  platform::NSLog("Tarvo : user UUID refused: it would not make a valid URL");
  return false;
}

}  // namespace

LocationManager& LocationManager::sharedInstance() {
  static LocationManager* engine = new LocationManager;
  return *engine;
}

EngineLink& EngineLink::current() {
  if (EngineLink* link = installed()) return *link;
  LocationManager::sharedInstance();
  return *installed();
}

LocationManager::LocationManager() : parts_(new EngineParts(*this)) { parts_->startUp(); }

const std::string& LocationManager::terrameshDataVersion() {
  static const auto* version = new std::string(names::kTerrameshDataVersion);
  return *version;
}

const std::string& LocationManager::callFromServerNotificationKey() {
  static const auto* key = new std::string(names::kCallFromServerNotification);
  return *key;
}

const std::string& LocationManager::backgroundSessionID() {
  static const auto* identifier = new std::string(names::kBackgroundSession);
  return *identifier;
}

std::string LocationManager::remoteWebServerURL() { return Settings::shared().remoteWebServerURL(); }

bool LocationManager::setRemoteWebServerURL(std::string_view url, bool allowPlainHttp) {
  auto refusal = refusalOfBackendAddress(url, allowPlainHttp);
  if (!refusal && !Settings::shared().setRemoteWebServerURL(std::string(url)))
    refusal = "clients have copied another one already";
  if (refusal) platform::NSLog("Tarvo : backend address refused: " + *refusal);
  return !refusal;
}

std::optional<std::string> LocationManager::userUUID() { return Settings::shared().userUUID.get(); }
bool LocationManager::setUserUUID(std::optional<std::string> uuid) {
  if (uuid && !acceptsUserUUID(*uuid)) return false;
  Settings::shared().userUUID.set(std::move(uuid));
  return true;
}

void LocationManager::setDelegate(const std::shared_ptr<LocationManagerDelegate>& delegate) {
  parts_->state.delegate.set(delegate);
}
std::shared_ptr<LocationManagerDelegate> LocationManager::delegate() const {
  return parts_->state.delegate.get().lock();
}
std::optional<std::string> LocationManager::apiKey() const { return parts_->registration.apiKey.get(); }
void LocationManager::setApiKey(std::optional<std::string> key) { parts_->registration.apiKey.set(std::move(key)); }
bool LocationManager::tarvoStarted() const { return parts_->state.tarvoStarted; }
void LocationManager::setTarvoStarted(bool started) { parts_->state.tarvoStarted = started; }
bool LocationManager::alreadyReceivedUUID() const { return parts_->registration.alreadyReceivedUUID; }
void LocationManager::setAlreadyReceivedUUID(bool received) { parts_->registration.alreadyReceivedUUID = received; }
std::shared_ptr<void> LocationManager::networkTimer() const { return parts_->state.networkTimer.get(); }
void LocationManager::setNetworkTimer(std::shared_ptr<void> timer) { parts_->state.networkTimer.set(std::move(timer)); }
platform::UserDefaults& LocationManager::defaults() const { return platform::UserDefaults::standard(); }
std::uint32_t LocationManager::randomID() const { return parts_->state.randomID; }

void LocationManager::start() { parts_->collection.start(); }
void LocationManager::stop() { parts_->collection.stop(); }
void LocationManager::stopLocationUpdate() { parts_->collection.stopLocationUpdate(); }
void LocationManager::requestLocationUpdate() { parts_->collection.requestLocationUpdate(); }
platform::CLAuthorizationStatus LocationManager::checkAndRequestLocationAuthorization(std::int64_t status) {
  return parts_->collection.checkAndRequestLocationAuthorization(status);
}
void LocationManager::requestAgainLocationAuthorization() { parts_->collection.requestAgainLocationAuthorization(); }
std::optional<platform::CLLocation> LocationManager::getLastLocation() { return parts_->collection.getLastLocation(); }
void LocationManager::foregroundMode() { parts_->modes.foregroundMode(); }
std::string LocationManager::getAppState() { return BackgroundModes::getAppState(); }
void LocationManager::refreshLoc() { parts_->intake.refreshLoc(); }

void LocationManager::sendDataInBatchToRemoteWebServer() { parts_->pipeline.startPass(UploadGate::Pass::host); }
void LocationManager::sendAllUnsentDataToRemoteWebServer() { parts_->pipeline.sendAllUnsentDataToRemoteWebServer(); }
void LocationManager::resendAllSentWithoutACKData(const std::vector<LocationRecord>& locations) {
  parts_->pipeline.resendAllSentWithoutACKData(locations);
}
void LocationManager::markLocationAsSentUntilIndex(const std::string& locationIndex, const std::string& firstLoc) {
  parts_->pipeline.acknowledge(locationIndex, firstLoc, {.answered = true});
}
std::optional<std::string> LocationManager::checkAndRegisterUser() {
  return parts_->registration.checkAndRegisterUser();
}
void LocationManager::registerUserToRemoteWebServer() { parts_->registration.registerUserToRemoteWebServer(); }
void LocationManager::addNewUserToDatabase(const std::string& uuid, const std::string& creationDate) {
  if (!acceptsUserUUID(uuid)) return;
  parts_->registration.storeUser(uuid, creationDate);
}
std::vector<UserRecord> LocationManager::getUser() { return parts_->registration.getUser(); }

LocationsHistory LocationManager::getLocationhistory(std::optional<Date> since, std::optional<Date> until) {
  return parts_->history.getLocationhistory(since, until);
}
LocationsHistory LocationManager::getLocationhistoryExtraPolated(std::optional<Date> since, std::optional<Date> until) {
  return parts_->history.getLocationhistoryExtraPolated(since, until);
}
std::optional<PastTripRecord> LocationManager::getLastPastTrip() { return parts_->history.getLastPastTrip(); }
std::vector<PointOfInterestRecord> LocationManager::getPointOfInterest() {
  return parts_->history.getPointOfInterest();
}
void LocationManager::addNewLastTrip(std::vector<platform::Dictionary> trips) {
  parts_->submitLastTrips(std::move(trips));
}
void LocationManager::addNewPOI(std::vector<platform::Dictionary> pois) { parts_->submitPOIs(std::move(pois)); }
void LocationManager::removeData() { parts_->downloads.removeData(); }
void LocationManager::removePOIs() { parts_->downloads.removePOIs(); }
void LocationManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                          std::function<void()> completionHandler) {
  parts_->networkManager.handleEventsForBackgroundURLSession(identifier, std::move(completionHandler));
}

LocationManager::SyncStatus LocationManager::syncStatus() {
  SyncStatus status;
  auto& context = parts_->store.managedObjectContext();
  context.performAndWait([&] {
    status.storeAvailable = context.coordinator().hasStore();
    const Locations::Counts counts = Locations::counts(context);
    status.stored = counts.stored;
    status.unsent = counts.unsent;
    status.awaiting = counts.awaiting;
    status.acknowledged = std::max<std::int64_t>(counts.stored - counts.unsent - counts.awaiting, 0);
    status.unsaved = counts.unsaved;
    status.lastIndex = counts.lastIndex;
  });
  status.batchesPosted = parts_->pipeline.batchesPosted();
  status.positionsPosted = parts_->pipeline.positionsPosted();
  return status;
}

std::optional<std::string> LocationManager::claimStore(double seconds) {
  std::optional<std::string> reason;
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(platform::boundedRealTime(Seconds(seconds)));
  auto& context = parts_->store.managedObjectContext();
  context.performAndWait([&] {
    if (auto error = context.claim(wait)) reason = std::move(error->localizedDescription);
  });
  return reason;
}

}  // namespace tarvo
