#include "engine/LocationManagerParts.h"

#include <cctype>
#include <string_view>

#include <tarvo/platform/Device.h>

#include "log/Log.h"
#include "platform/foundation/HostCall.h"
#include "platform/foundation/NotificationCenter.h"
#include "settings/Settings.h"
#include "store/Users.h"

namespace tarvo {

using platform::CLLocationManager;
using platform::UIApplication;
using platform::UIDevice;

namespace {

/// The printed form of a folder's URL: what cannot stand in a URL as it is becomes %XX.
std::string fileURL(const std::filesystem::path& folder) {
  std::string url = "file://";
  for (const char c : folder.string() + "/") {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || std::string_view("/-._~!$&'()*+,;=:@").find(c) != std::string_view::npos) {
      url.push_back(c);
    } else {
      url.push_back('%');
      url.push_back("0123456789ABCDEF"[byte >> 4]);
      url.push_back("0123456789ABCDEF"[byte & 15]);
    }
  }
  return url;
}

/// Hands the background session's traffic to the queue of backend replies.
class ReplyReceiver final : public NetworkManagerDelegate {
 public:
  explicit ReplyReceiver(LocationManager::Parts& parts) : parts_(parts) {}

  void networkManagerReceivedSomeData(NetworkManager&, const std::string& data) override {
    parts_.queues.serialNetworkQueue.async([data] { handleLogUploadReply(data); });
  }
  void networkManagerReceivedSessionError(NetworkManager&) override {
    parts_.queues.serialNetworkQueue.async([this] { parts_.pipeline.networkManagerReceivedSessionError = true; });
  }

 private:
  LocationManager::Parts& parts_;
};

}  // namespace

LocationManager::Parts::Parts(LocationManager& owner)
    : engine(owner),
      registration(store, networkManager),
      pipeline(store, networkManager, registration),
      history(store),
      downloads(store),
      writer(queues, store),
      control(state, queues, locationManager, store, writer, networkManager),
      geofencing(state, locationManager, control),
      modes(state, queues, locationManager, control, geofencing, networkManager),
      intake(owner, state, queues, control, writer, modes, geofencing, pipeline) {}

void LocationManager::Parts::startUp() {
  subscribeForNotifications();
  networkManager.setDelegate(std::make_shared<ReplyReceiver>(*this));
  // Answers that arrive while start-up goes on must find the engine without asking for the shared instance.
  EngineLink::install(this);
  readStoredUser();
  registration.apiKey.set(registration.checkAndRegisterUser());
  configureLocationService();
  Log::debug("LocationManager:init [loc] [init] mainThread:", mainThread());
  probeServices();
  Log::debug("LocationManager:init [loc] [init] docPath:", fileURL(store.applicationDocumentsDirectory()));
  UIDevice::current().setBatteryMonitoringEnabled(true);
  state.currentBatteryState = UIDevice::current().batteryState();
  UIApplication::shared().setMinimumBackgroundFetchInterval(10.0);
  queues.serialNetworkDataQueue.sync([this] { pipeline.startPass(); });
  // The first report of the permission is no change: it is dealt with before anybody can start the service.
  locationManager.waitUntilTold();
  queues.serialQueue.sync([] {});
}

void LocationManager::Parts::subscribeForNotifications() {
  for (const char* name :
       {platform::UIApplicationDidEnterBackgroundNotification, platform::UIApplicationDidBecomeActiveNotification,
        platform::UIApplicationDidFinishLaunchingNotification, platform::UIDeviceBatteryStateDidChangeNotification})
    platform::NotificationCenter::defaultCenter().addObserver(
        name, [this](const std::string& posted) { modes.handleNotification(posted); });
}

void LocationManager::Parts::readStoredUser() {
  auto& context = store.managedObjectContext();
  context.performAndWait([&] { Settings::shared().userUUID.set(Users::getUserUUID(context)); });
}

void LocationManager::Parts::configureLocationService() {
  locationManager.setDelegate(this);
  locationManager.setDesiredAccuracy(state.desiredAccuracyForeground);
  locationManager.setDistanceFilter(20.0);
  locationManager.setPausesLocationUpdatesAutomatically(false);
  if (UIDevice::current().platformLevel() >= 9) locationManager.setAllowsBackgroundLocationUpdates(true);
}

void LocationManager::Parts::probeServices() {
  if (CLLocationManager::locationServicesEnabled()) {
    state.standardServiceAvailable = true;
    Log::debug("LocationManager:init [loc] [init] STANDARD-LOCATION-SERVICE:true");
  }
  if (CLLocationManager::significantLocationChangeMonitoringAvailable()) {
    state.significantChangeServiceAvailable = true;
    Log::debug("LocationManager:init [loc] [init] SIGNIFICANT-LOCATION-CHANGE-SERVICE:true");
  }
  if (CLLocationManager::headingAvailable())
    Log::debug("LocationManager:init [loc] [init] HEADING-INFORMATION-SERVICE:true");
  if (CLLocationManager::isRangingAvailable())
    Log::debug("LocationManager:init [loc] [init] BLUETOOTH-RANGING-SERVICE:true");
  if (CLLocationManager::deferredLocationUpdatesAvailable())
    Log::debug("LocationManager:init [loc] [init] DEFERRED-LOCATION-UPDATES:true");
  if (CLLocationManager::isMonitoringAvailableForCircularRegions()) {
    state.geofencingAvailable = true;
    Log::debug("LocationManager:init [loc] [init] REGION-MONITORING-SERVICE:true");
  }
}

void LocationManager::Parts::didUpdateLocations(CLLocationManager&,
                                                const std::vector<platform::CLLocation>& locations) {
  intake.didUpdateLocations(locations);
}
void LocationManager::Parts::didFailWithError(CLLocationManager&, const platform::Error& error) {
  intake.didFailWithError(error);
}
void LocationManager::Parts::didFinishDeferredUpdates(CLLocationManager&, const std::optional<platform::Error>& error) {
  intake.didFinishDeferredUpdates(error);
}
void LocationManager::Parts::didChangeAuthorization(CLLocationManager&, platform::CLAuthorizationStatus status) {
  control.didChangeAuthorization(status);
}
void LocationManager::Parts::didStartMonitoring(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didStartMonitoring(region);
}
void LocationManager::Parts::monitoringDidFail(CLLocationManager&, const std::optional<platform::CLCircularRegion>&,
                                               const platform::Error& error) {
  geofencing.monitoringDidFail(error);
}
void LocationManager::Parts::didEnterRegion(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didEnterRegion(region);
}
void LocationManager::Parts::didExitRegion(CLLocationManager&, const platform::CLCircularRegion& region) {
  geofencing.didExitRegion(region);
}

void LocationManager::Parts::acknowledge(const std::string& locationIndex, const std::string& firstLoc) {
  pipeline.acknowledge(locationIndex, firstLoc);
}

void LocationManager::Parts::startPass() { pipeline.startPass(); }

void LocationManager::Parts::storeUser(const std::string& uuid, const std::string& creationDate) {
  registration.storeUser(uuid, creationDate);
}

bool LocationManager::Parts::alreadyReceivedUUID() const { return registration.alreadyReceivedUUID; }
void LocationManager::Parts::setAlreadyReceivedUUID(bool received) { registration.alreadyReceivedUUID = received; }

EngineLink::NewestTrip LocationManager::Parts::newestTrip() {
  const auto trip = history.getLastPastTrip();
  if (!trip) return {};
  return {true, trip->pasttrip_id};
}

void LocationManager::Parts::submitLastTrips(std::vector<platform::Dictionary> trips) {
  queues.serialQueueLastTrips.async([this, trips = std::move(trips)] {
    const auto matched = downloads.addNewLastTrip(trips);
    // The store's block has ended: the host may do in its callback what it likes.
    if (!matched) return;
    Log::debug("LocationManager: locationManagerOnRouteMatched count : ", matched->pasttrips.size());
    if (const auto delegate = state.delegate.get().lock())
      platform::callHost("locationManagerOnRouteMatched",
                         [&] { delegate->locationManagerOnRouteMatched(engine, *matched); });
  });
}

void LocationManager::Parts::submitPOIs(std::vector<platform::Dictionary> pois) {
  queues.serialQueuePOI.async([this, pois = std::move(pois)] { downloads.addNewPOI(pois); });
}

void LocationManager::Parts::predictionStored() {
  queues.serialNetworkQueue.async([this] {
    if (const auto delegate = state.delegate.get().lock())
      platform::callHost("onPredictionUpdateDelegate", [&] { delegate->onPredictionUpdateDelegate(); });
  });
}

}  // namespace tarvo
