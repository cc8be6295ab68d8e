#include "engine/EngineParts.h"

#include <algorithm>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/NotificationCenter.h"
#include "settings/Settings.h"
#include "store/Locations.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/Users.h"

namespace tarvo {

using platform::CLLocationManager;
using platform::UIApplication;
using platform::UIDevice;

namespace {

/// The printed form of a folder's URL: what cannot stand in a URL as it is becomes %XX.
std::string fileURL(const std::filesystem::path& folder) {
  static const auto& marks = *new std::string(platform::concat("/", platform::kPathMarks));
  return "file://" + platform::percentEncoded(folder.string() + "/", marks);
}

/// Hands the background session's traffic to the queue of backend replies.
class ReplyReceiver final : public NetworkManagerDelegate {
 public:
  explicit ReplyReceiver(EngineParts& parts) : parts_(parts) {}

  void networkManagerReceivedSomeData(NetworkManager&, const std::string& data) override {
    parts_.state.serialNetworkQueue.async([data] { handleLogUploadReply(data); });
  }
  void networkManagerReceivedSessionError(NetworkManager&) override {
    parts_.state.serialNetworkQueue.async([this] { parts_.pipeline.networkManagerReceivedSessionError = true; });
  }

 private:
  EngineParts& parts_;
};

}  // namespace

EngineParts::EngineParts(LocationManager& owner)
    : engine(owner),
      retention(store, ledger),
      registration(store, networkManager),
      pipeline(store, networkManager, registration, ledger),
      history(store),
      downloads(store),
      collection(state, locationManager, store, networkManager, ledger),
      geofencing(state, locationManager, collection),
      modes(state, locationManager, collection, geofencing, networkManager),
      intake(owner, state, collection, modes, geofencing, pipeline) {
  store.setWillSave([this](platform::NSManagedObjectContext& context) { ledger.willSave(context); });
  store.setAfterSave([this] { retention.didSave(); });
}

void EngineParts::startUp() {
  subscribeForNotifications();
  networkManager.setDelegate(std::make_shared<ReplyReceiver>(*this));
  // Answers that arrive while start-up goes on must find the engine without asking for the shared instance.
  EngineLink::install(this);
  platform::faultPoint("start: engine installed");
  readStoredUser();
  platform::faultPoint("start: user read");
  registration.apiKey.set(registration.checkAndRegisterUser());
  platform::faultPoint("start: registration looked at");
  configureLocationService();
  Log::debug("LocationManager:init [loc] [init] mainThread:", mainThread());
  probeServices();
  Log::debug("LocationManager:init [loc] [init] docPath:", fileURL(store.applicationDocumentsDirectory()));
  UIDevice::current().setBatteryMonitoringEnabled(true);
  state.currentBatteryState = UIDevice::current().batteryState();
  UIApplication::shared().setMinimumBackgroundFetchInterval(10.0);
  platform::faultPoint("start: before the first pass");
  state.serialNetworkDataQueue.sync([this] { pipeline.startPass(); });
  // The first report of the permission is no change: it is dealt with before anybody can start the service.
  locationManager.waitUntilTold();
  state.serialQueue.sync([] {});
}

void EngineParts::subscribeForNotifications() {
  for (const char* name :
       {platform::UIApplicationDidEnterBackgroundNotification, platform::UIApplicationDidBecomeActiveNotification,
        platform::UIApplicationDidFinishLaunchingNotification, platform::UIDeviceBatteryStateDidChangeNotification})
    platform::NotificationCenter::defaultCenter().addObserver(
        name, [this](const std::string& posted) { modes.handleNotification(posted); });
}

void EngineParts::readStoredUser() {
  auto& context = store.managedObjectContext();
  context.performAndWait([&] {
    Settings::shared().userUUID.set(Users::getUserUUID(context));
    ledger.read(context);
  });
}

void EngineParts::configureLocationService() {
  locationManager.setDelegate(this);
  locationManager.setDesiredAccuracy(state.desiredAccuracyForeground);
  locationManager.setDistanceFilter(state.distanceFilterForeground);
  locationManager.setPausesLocationUpdatesAutomatically(false);
  if (UIDevice::current().hasFeaturesOfLevel9()) locationManager.setAllowsBackgroundLocationUpdates(true);
}

void EngineParts::probeServices() {
  if (CLLocationManager::locationServicesEnabled()) {
    state.unconsulted.standardServiceAvailable = true;
    Log::debug("LocationManager:init [loc] [init] STANDARD-LOCATION-SERVICE:true");
  }
  if (CLLocationManager::significantLocationChangeMonitoringAvailable()) {
    state.unconsulted.significantChangeServiceAvailable = true;
    Log::debug("LocationManager:init [loc] [init] SIGNIFICANT-LOCATION-CHANGE-SERVICE:true");
  }
  if (CLLocationManager::headingAvailable())
    Log::debug("LocationManager:init [loc] [init] HEADING-INFORMATION-SERVICE:true");
  if (CLLocationManager::isRangingAvailable())
    Log::debug("LocationManager:init [loc] [init] BLUETOOTH-RANGING-SERVICE:true");
  if (CLLocationManager::deferredLocationUpdatesAvailable())
    Log::debug("LocationManager:init [loc] [init] DEFERRED-LOCATION-UPDATES:true");
  if (CLLocationManager::isMonitoringAvailableForCircularRegions()) {
    state.unconsulted.geofencingAvailable = true;
    Log::debug("LocationManager:init [loc] [init] REGION-MONITORING-SERVICE:true");
  }
}

void EngineParts::didUpdateLocations(CLLocationManager&, const std::vector<platform::CLLocation>& locations) {
  intake.didUpdateLocations(locations);
}
void EngineParts::didFailWithError(CLLocationManager&, const platform::Error& error) { intake.didFailWithError(error); }
void EngineParts::didFinishDeferredUpdates(CLLocationManager&, const std::optional<platform::Error>& error) {
  intake.didFinishDeferredUpdates(error);
}
void EngineParts::didChangeAuthorization(CLLocationManager&, platform::CLAuthorizationStatus status) {
  collection.didChangeAuthorization(status);
}
void EngineParts::didStartMonitoring(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didStartMonitoring(region);
}
void EngineParts::monitoringDidFail(CLLocationManager&, const std::optional<platform::CLCircularRegion>&,
                                    const platform::Error& error) {
  geofencing.monitoringDidFail(error);
}
void EngineParts::didEnterRegion(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didEnterRegion(region);
}
void EngineParts::didExitRegion(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didExitRegion(region);
}

void EngineParts::resetLocalHistory() {
  auto& context = store.managedObjectContext();
  context.performAndWait([&] {
    PastTrips::removeData(context);
    PointOfInterest::removePOIs(context);
    platform::faultPoint("reset: before the save");
    store.saveContext();
  });
}

Health EngineParts::health() {
  Health health;
  auto& context = store.managedObjectContext();
  context.performAndWait([&] {
    ledger.read(context);
    const Locations::Counts counts = Locations::counts(context);
    health.positions = ledger.positions();
    health.positions.stored = counts.stored;
    health.positions.unsent = counts.unsent;
    health.positions.awaiting = counts.awaiting;
    health.positions.acknowledged = counts.acknowledged();
    health.positions.unsaved = counts.unsaved;
    // Counted in the removal's own transaction; the ledger is told a moment later. Without a store nobody asks: the
    // reason is for the next save to tell.
    if (context.coordinator().hasStore())
      if (auto removed = context.removedRows(Locations::kEntity)) health.positions.removed = *removed;
    // The clock may have been set back since.
    if (const auto oldest = Locations::oldestUnacknowledgedStorage(context))
      health.positions.oldestUnsentAge = std::max(platform::Clock::current()->now() - *oldest, platform::Seconds(0));
    health.store.available = context.coordinator().hasStore();
    health.store.lastError = context.coordinator().obstacle();
  });
  health.delivery = ledger.delivery();
  if (const auto next = pipeline.nextTry()) health.delivery.nextTry = next;
  health.delivery.bytesToday = pipeline.bytesToday();
  health.fixes = platform::LocationService::shared().statistics();
  health.store.bytes = store.bytes();
  if (!health.store.lastError) health.store.lastError = store.lastError();
  health.log = {Log::bytes(), Log::linesDropped()};
  health.gaps = ledger.gaps(collection.obstacle());
  return health;
}

void EngineParts::checkpoint() {
  auto& context = store.managedObjectContext();
  context.performAndWait([&] {
    if (!context.coordinator().hasStore()) return;
    store.saveAfterFailure();
    platform::faultPoint("checkpoint: before");
    if (!context.hasChanges() && ledger.refresh(context)) store.saveQuietly();
    if (const auto error = context.coordinator().checkpoint())
      Log::error("Unresolved error ", platform::errorAndUserInfo(*error));
  });
}

void EngineParts::acknowledge(const std::string& locationIndex, const std::string& firstLoc, const BatchEnd& end) {
  pipeline.acknowledge(locationIndex, firstLoc, end);
}

void EngineParts::batchFailed(const BatchEnd& end) { pipeline.batchFailed(end); }

void EngineParts::startPass() { pipeline.startPass(); }

void EngineParts::storeUser(const std::string& uuid, const std::string& creationDate) {
  registration.storeUser(uuid, creationDate);
}

bool EngineParts::alreadyReceivedUUID() const { return registration.alreadyReceivedUUID; }
void EngineParts::setAlreadyReceivedUUID(bool received) { registration.alreadyReceivedUUID = received; }

EngineLink::NewestTrip EngineParts::newestTrip() {
  const auto trip = history.getLastPastTrip();
  if (!trip) return {};
  return {true, trip->pasttrip_id};
}

void EngineParts::submitLastTrips(std::vector<platform::Dictionary> trips) {
  state.serialQueueLastTrips.async([this, trips = std::move(trips)] {
    const auto matched = downloads.addNewLastTrip(trips);
    // The store's block has ended: the host may do in its callback what it likes.
    if (!matched) return;
    Log::debug("LocationManager: locationManagerOnRouteMatched count : ", matched->pasttrips.size());
    if (const auto delegate = state.delegate.get().lock())
      platform::callHost("locationManagerOnRouteMatched",
                         [&] { delegate->locationManagerOnRouteMatched(engine, *matched); });
  });
}

void EngineParts::submitPOIs(std::vector<platform::Dictionary> pois) {
  state.serialQueuePOI.async([this, pois = std::move(pois)] { downloads.addNewPOI(pois); });
}

void EngineParts::predictionStored() {
  state.serialNetworkQueue.async([this] {
    if (const auto delegate = state.delegate.get().lock())
      platform::callHost("onPredictionUpdateDelegate", [&] { delegate->onPredictionUpdateDelegate(); });
  });
}

}  // namespace tarvo
