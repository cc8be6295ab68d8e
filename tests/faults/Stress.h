#pragma once

#include <tarvo/platform/MainQueue.h>

#include <atomic>
#include <thread>

#include "faults/Rows.h"

namespace tarvo::faults {

using platform::LocationService;

/// What a host may call at any time, told apart by a number.
using Operations = std::vector<std::function<void(Tarvo&, std::uint64_t)>>;

inline std::vector<platform::Dictionary> itemWith(const char* key, std::uint64_t number) {
  return {{{key, static_cast<std::int64_t>(number % 1000)}}};
}

inline void deliverAny(std::uint64_t number) {
  LocationService::shared().deliver({Host::fixAt(number % 90'000'007 * 1e-6, Host::kStart + number % 9000)});
}

/// Every public operation. `user`: with those that need an identity; `outside`: with those that must not be called in a
/// callback.
inline Operations operations(Host& host, bool user, bool outside) {
  static const std::int64_t modes[] = {4, 8, 12, -4};
  static const auto& message = *new platform::Dictionary{{"messageFrom", "tarvo"}};  // threads outlive `main`
  static const auto& foreign = *new platform::Dictionary{{"messageFrom", NAN}, {"\xff", platform::Array{"\xff"}}};
  static auto& service = LocationService::shared();
  using namespace platform;
  static const auto engine = Host::engine;
  Operations all = {
      [](auto& t, auto n) { t.activate(modes[n / 7 % 4]); },
      [](auto& t, auto) { t.serviceConnect(), t.getCurrentLocation(), t.setApiKeySecret("secret"); },
      [](auto& t, auto n) { n % 2 ? t.requestLocationUpdate() : t.stopLocationUpdate(); },
      [](auto& t, auto n) { t.getLocationHistory(n % 3, {}, {}), t.getNextTrip(), t.getPointOfInterests(); },
      [](auto& t, auto) { t.syncStatus(), t.health(), Tarvo().syncStatus(); },
      [](auto& t, auto) { t.resetLocalHistory(), t.resetBackendHistory(), t.resetGeoProfileHistory(); },
      [](auto& t, auto) { t.didRegisterForRemoteNotificationsWithDeviceToken("t0k"); },
      [](auto& t, auto n) { t.didReceiveRemoteNotification(n % 2 ? message : foreign); },
      [](auto& t, auto n) { n % 2 ? t.requestRouteMatch() : t.stopRouteMatch(); },
      [](auto& t, auto n) { n % 2 ? t.requestPredictionUpdate() : t.stopPredictionUpdate(); },
      [](auto& t, auto) { t.setSubscription("news", "{}"), t.setUnSubscription("news"); },
      [](auto& t, auto) { t.setTags("colour", "red"), t.unsetTags("colour"); },
      [](auto& t, auto) { t.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), [] {}); },
      [](auto& t, auto n) { t.setDelegate(n % 2 ? t.delegate() : std::make_shared<test::DiaryDelegate>()); },
      [](auto& t, auto) { t.setUNSET_TAGS_LIST({}), t.setSET_TAGS_LIST(t.SET_TAGS_LIST()); },
      [](auto&, auto) { NetworkManager::setSUBSCRIPTION_LIST(NetworkManager::SUBSCRIPTION_LIST()); },
      [](auto& t, auto n) { t.setDeliveryOptions({.confirmed = n % 2 == 0, .dropsProtocolBreaks = n % 3 == 0}); },
      [](auto& t, auto n) {
        t.setStorageLimits(n % 2 ? t.storageLimits() : StorageLimits{Seconds(1e9), 1 << 30, {}, n});
      },
      [](auto& t, auto) { t.probe([] {}); },
      [](auto& t, auto) { t.setClientID(t.clientID()), t.setBundleID(t.bundleID()); },
      [](auto& t, auto) { t.setDeviceToken(t.deviceToken()), t.setLastPrediction(t.LastPrediction()); },
      [](auto&, auto) { engine().foregroundMode(), engine().refreshLoc(), engine().claimStore(0.01); },
      [](auto&, auto) { engine().sendDataInBatchToRemoteWebServer(), engine().checkAndRegisterUser(); },
      [](auto&, auto) { engine().getLocationhistory({}, {}).locations.toVector(), engine().getUser(); },
      [](auto&, auto) { engine().getLocationhistoryExtraPolated({}, {}).toGeoJSON("LineString"); },
      [](auto&, auto n) { engine().addNewLastTrip(itemWith("pasttrip_id", n)), engine().getLastPastTrip(); },
      [](auto&, auto n) { engine().addNewPOI(itemWith("poi_id", n)), engine().getPointOfInterest(); },
      [](auto&, auto) { engine().removeData(), engine().removePOIs(); },
      [](auto&, auto n) { engine().checkAndRequestLocationAuthorization(n % 12); },
      [](auto&, auto) { engine().requestAgainLocationAuthorization(), NetworkManager().sendLogToRemoteWebServer(); },
      [](auto&, auto) { NetworkManager::isWebServerReachable(true, LocationManager::remoteWebServerURL()); },
      [](auto&, auto) { NetworkManager().sendTokenremoteWebServer(), NetworkManager().userConfigremoteWebServer(); },
      [](auto&, auto n) { service.setAuthorizationStatus(CLAuthorizationStatus{n % 2 ? 3 : 4}); },
      [](auto&, auto) { service.setRules(service.rules()), service.setCapabilities(service.capabilities()); },
      [](auto&, auto) { service.setSource(nullptr), service.setPrompt([](auto) {}), service.fail(0); },
      [](auto&, auto n) { deliverAny(n); },
      [](auto&, auto) { UIApplication::shared().didBecomeActive(), UIApplication::shared().didFinishLaunching(); },
      [](auto&, auto) { UIApplication::shared().willResignActive(), UIApplication::shared().didEnterBackground(); },
      [](auto&, auto n) { UIDevice::current().setBattery(UIDeviceBatteryState(n % 4), n % 9 * 0.1); },
      [](auto&, auto n) { UIDevice::current().setBatteryMonitoringEnabled(n % 2); },
      [](auto&, auto n) { UserDefaults::standard().set("tarvologlevel", n % 4 ? 6 : 10); },
      [](auto&, auto n) { UserDefaults::standard().set("mine", n), UserDefaults::standard().synchronize(); },
      [&host](auto&, auto) { setHostApplication(nullptr), setHomeDirectory(host.home.path()); },
  };
  if (user) all.push_back([](auto&, auto) { NetworkManager().getNextTrip(), NetworkManager().getPOI(); });
  if (user) all.push_back([](auto&, auto) { NetworkManager().getLocationHistoryEXTRAPOLATED(); });
  if (outside)
    all.push_back([](auto&, auto n) { n % 2 ? void(Tarvo::waitUntilIdle(0.01)) : void(Tarvo::flush(0.01)); });
  return all;
}

/// Threads that call operations in an order of their own, `rounds` of all; while they do, the main queue is pumped.
/// With no rounds they go on until the process ends, and this returns when some calls are done. The threads have one
/// handle in common or, without it, make one each.
inline void stress(const std::optional<Tarvo>& tarvo, const Operations& operations, int threads, std::int64_t rounds,
                   std::uint64_t seed) {
  const auto all = std::make_shared<Operations>(operations);
  const auto left = std::make_shared<std::atomic<std::int64_t>>(rounds ? threads * rounds * std::ssize(*all) : 100);
  for (int thread = 0; thread < threads; ++thread)
    std::thread([=, random = std::mt19937_64(seed + thread)]() mutable {
      Tarvo own = tarvo ? *tarvo : Tarvo();
      for (std::int64_t i = 0; rounds == 0 || i < rounds * std::ssize(*all); ++i, --*left)
        all->at(random() % all->size())(own, random() >> 16);
    }).detach();
  while (*left > 0) platform::MainQueue::main().runFor(platform::Seconds(0.01));
}

/// After a stress: all that is stored reaches the backend, once.
inline void expectAllDelivered(Host& host, Tarvo& tarvo) {
  LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::authorizedAlways);
  host.activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  host.settle();
  host.expectEachIndexOnce(tarvo.syncStatus().stored);
}

enum class Stage { nothing, activated, registered };

/// Threads call everything, in a process that has come so far. Its end finds, by the seed, work in flight, threads that
/// still call, and an SDK that is switched off.
inline void everythingAtOnce(Host& host, Stage stage, int threads, std::int64_t rounds, std::uint64_t seed) {
  host.startBackend();
  static Host& mine = host;
  std::atexit([] { mine.backend.stop(); });  // after the SDK's end, and before that of what the server uses
  LocationService::shared().deliver({Host::fixAt(1, Host::kStart)});
  std::optional<Tarvo> tarvo;
  if (stage == Stage::activated) host.activate(tarvo.emplace(), Tarvo::BACKEND_BACKGROUND);
  if (stage == Stage::registered) tarvo = host.registered();
  if (tarvo) host.drive(1);
  const auto held = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = held();
  const Operations all = operations(host, stage == Stage::registered, true);
  stress(tarvo, all, threads, rounds, seed);
  Tarvo after = host.registered();
  expectAllDelivered(host, after);
  EXPECT_LT(held(), before + 50) << "descriptors";
  if (seed % 2 == 1) stress(after, all, threads, 0, seed);
  if (seed % 4 > 1) deliverAny(seed), deliverAny(seed + 100);
  if (seed % 8 > 3) after.activate(Tarvo::DEACTIVE_ALL);
}

}  // namespace tarvo::faults
