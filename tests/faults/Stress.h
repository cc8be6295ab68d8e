#pragma once

#include <tarvo/platform/MainQueue.h>

#include <atomic>
#include <thread>

#include "faults/Rows.h"

namespace tarvo::faults {

using platform::LocationService;

/// Every public operation that a host may call at any time, once each.
class Operations {
 public:
  /// `user`: with those that need an identity; `outside`: with those that must not be called in a callback.
  Operations(Host& host, bool user, bool outside) : all_(list(host)) {
    if (user)
      all_.insert(all_.end(),
                  {[](auto&, auto) { NetworkManager().getNextTrip(); }, [](auto&, auto) { NetworkManager().getPOI(); },
                   [](auto&, auto) { NetworkManager().getLocationHistoryEXTRAPOLATED(); }});
    if (outside) all_.push_back([](auto&, auto) { Tarvo::waitUntilIdle(0.01); });
  }
  std::size_t size() const { return all_.size(); }
  void call(Tarvo& tarvo, std::uint64_t number) const { all_[number % all_.size()](tarvo, number); }

 private:
  using List = std::vector<std::function<void(Tarvo&, std::uint64_t)>>;

  static List list(Host& host) {
    using platform::UIApplication, platform::UIDevice, platform::UserDefaults;
    static LocationService& service = LocationService::shared();
    return {
        [](auto& t, auto n) {
          t.activate(std::array{4, 8, 12, -4}[n / 7 % 4]);
        },
        [](auto& t, auto) { t.serviceConnect(); },
        [](auto& t, auto) { t.requestLocationUpdate(); },
        [](auto& t, auto) { t.stopLocationUpdate(); },
        [](auto& t, auto) { t.getCurrentLocation(); },
        [](auto& t, auto n) { t.getLocationHistory(n % 3, {}, {}); },
        [](auto& t, auto) { t.getNextTrip(); },
        [](auto& t, auto) { t.syncStatus(); },
        [](auto& t, auto) { t.health(); },
        [](auto& t, auto) { t.getPointOfInterests(); },
        [](auto& t, auto) { t.resetLocalHistory(); },
        [](auto& t, auto) { t.resetBackendHistory(); },
        [](auto& t, auto) { t.resetGeoProfileHistory(); },
        [](auto& t, auto) { t.didRegisterForRemoteNotificationsWithDeviceToken("t0k"); },
        [](auto& t, auto) {
          t.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
        },
        [](auto& t, auto) { t.setApiKeySecret("secret"); },
        [](auto& t, auto n) { n % 2 ? t.requestRouteMatch() : t.stopRouteMatch(); },
        [](auto& t, auto n) { n % 2 ? t.requestPredictionUpdate() : t.stopPredictionUpdate(); },
        [](auto& t, auto n) { n % 2 ? t.setSubscription("news", "{}") : t.setUnSubscription("news"); },
        [](auto& t, auto n) { n % 2 ? t.setTags("colour", "red") : t.unsetTags("colour"); },
        [](auto& t, auto) { t.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), [] {}); },
        [](auto& t, auto) { t.setDelegate(std::make_shared<test::DiaryDelegate>()); },
        [](auto& t, auto) { t.setDelegate(t.delegate()); },
        [](auto&, auto) { Tarvo().syncStatus(); },
        [](auto&, auto) { Tarvo::setUNSET_TAGS_LIST({}), Tarvo::setSET_TAGS_LIST(Tarvo::SET_TAGS_LIST()); },
        [](auto&, auto) { Tarvo::setLastPrediction(Tarvo::LastPrediction()); },
        [](auto&, auto) { Tarvo::setDeliveryOptions(Tarvo::deliveryOptions()); },
        [](auto&, auto) { Tarvo::setStorageLimits(Tarvo::storageLimits()); },
        [](auto&, auto) { Tarvo::setClientID(Tarvo::clientID()), Tarvo::setBundleID(Tarvo::bundleID()); },
        [](auto&, auto) { Tarvo::setDeviceToken(Tarvo::deviceToken()), Tarvo::setTokenSent(Tarvo::tokenSent()); },
        [](auto& t, auto) { t.locationManager().foregroundMode(); },
        [](auto& t, auto) { t.locationManager().sendDataInBatchToRemoteWebServer(); },
        [](auto& t, auto) { t.locationManager().refreshLoc(); },
        [](auto& t, auto) { t.locationManager().checkAndRegisterUser(), t.locationManager().getUser(); },
        [](auto& t, auto) { t.locationManager().getLocationhistory({}, {}).locations.toVector(); },
        [](auto& t, auto) { t.locationManager().getLocationhistoryExtraPolated({}, {}).toGeoJSON("LineString"); },
        [](auto& t, auto) { t.locationManager().getLastPastTrip(), t.locationManager().getPointOfInterest(); },
        [](auto& t, auto n) {
          t.locationManager().addNewLastTrip({{{"pasttrip_id", n}}});
        },
        [](auto& t, auto n) {
          t.locationManager().addNewPOI({{{"poi_id", n}}});
        },
        [](auto& t, auto) { t.locationManager().removeData(), t.locationManager().removePOIs(); },
        [](auto& t, auto n) { t.locationManager().checkAndRequestLocationAuthorization(n % 12); },
        [](auto& t, auto) { t.locationManager().requestAgainLocationAuthorization(); },
        [](auto& t, auto) { t.locationManager().claimStore(0.01); },
        [](auto&, auto) { NetworkManager::isWebServerReachable(true, LocationManager::remoteWebServerURL()); },
        [](auto&, auto) { NetworkManager::setSUBSCRIPTION_LIST(NetworkManager::SUBSCRIPTION_LIST()); },
        [](auto&, auto) { NetworkManager().sendTokenremoteWebServer(); },
        [](auto&, auto) { NetworkManager().userConfigremoteWebServer(); },
        [](auto&, auto) { NetworkManager().sendLogToRemoteWebServer(); },
        [](auto&, auto n) { service.setAuthorizationStatus(platform::CLAuthorizationStatus{n % 2 ? 3 : 4}); },
        [](auto&, auto) { service.setRules(service.rules()), service.setCapabilities(service.capabilities()); },
        [](auto&, auto) { service.setSource(nullptr), service.setPrompt([](auto) {}); },
        [](auto&, auto) { service.fail(0); },
        [](auto&, auto n) { service.deliver({Host::fixAt(n % 9000 * 0.01, Host::kStart + 1.0 * n)}); },
        [](auto&, auto n) {
          n % 2 ? UIApplication::shared().didBecomeActive() : UIApplication::shared().didEnterBackground();
        },
        [](auto&, auto) { UIApplication::shared().willResignActive(), UIApplication::shared().didFinishLaunching(); },
        [](auto&, auto n) {
          UIDevice::current().setBattery(static_cast<platform::UIDeviceBatteryState>(n / 2 % 4), 0.5);
        },
        [](auto&, auto n) { UIDevice::current().setBatteryMonitoringEnabled(n % 2); },
        [](auto&, auto n) { UserDefaults::standard().set("mine", n), UserDefaults::standard().synchronize(); },
        [](auto&, auto n) { UserDefaults::standard().set("tarvologlevel", n % 4 ? 6 : 10); },
        [](auto&, auto) { platform::setHostApplication(nullptr); },
        [&host](auto&, auto) { platform::setHomeDirectory(host.home.path()); },
    };
  }

  List all_;
};

/// Threads that call operations in an order of their own, `rounds` of all; while they do, the main queue is pumped.
inline void stress(Tarvo& tarvo, const Operations& operations, int threads, std::size_t rounds, std::uint64_t seed) {
  std::atomic<int> left{threads};
  std::vector<std::thread> all;
  for (int thread = 0; thread < threads; ++thread)
    all.emplace_back([&, random = std::mt19937_64(seed + thread), own = tarvo]() mutable {
      for (std::size_t i = 0; i < rounds * operations.size(); ++i) operations.call(own, random() >> 16);
      --left;
    });
  while (left > 0) platform::MainQueue::main().runFor(platform::Seconds(0.01));
  for (std::thread& thread : all) thread.join();
}

/// After a stress: all that is stored reaches the backend, once.
inline void expectAllDelivered(Host& host, Tarvo& tarvo) {
  platform::LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::authorizedAlways);
  host.activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  host.settle();
  host.expectEachIndexOnce(tarvo.syncStatus().stored);
}

}  // namespace tarvo::faults
