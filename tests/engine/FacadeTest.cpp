#include "engine/Harness.h"

#include <chrono>
#include <future>
#include <stdexcept>

#include <tarvo/platform/MainQueue.h>

#include "net/EngineLink.h"

namespace tarvo {
namespace {

using platform::CLAuthorizationStatus;
using platform::LocationService;
using platform::Seconds;
using platform::UserDefaults;
using test::DiaryDelegate;

class Facade : public test::WholeSdk {};

TEST_F(Facade, GatesReadsByTheMode) {
  Tarvo tarvo;
  EXPECT_EQ(Tarvo::ACTIVATE_STATUS(), Tarvo::DEACTIVE_ALL);
  tarvo.requestLocationUpdate();
  EXPECT_EQ(diary.count("LocationManager:requestLocationUpdate"), 0u);
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  EXPECT_FALSE(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {})) << "an empty history is absent";
  drive(2);
  engine().addNewLastTrip({{{"pasttrip_id", 7}, {"start_time", "2024-06-15T10:00:00.000+0000"}}});
  engine().addNewPOI({{{"poi_id", 1}, {"zone_geo_json", platform::Dictionary{}}}});
  waitUntilIdle();
  EXPECT_EQ(tarvo.getPointOfInterests(), std::vector<std::string>{"{}"});
  const struct {
    std::int64_t mode;
    bool raw, extrapolated, trip, position;
  } cases[] = {{-4, false, false, false, false}, {-1, false, false, false, true}, {0, false, false, false, true},
               {3, false, false, false, true},   {4, true, false, false, true},   {7, true, false, false, true},
               {8, true, true, false, true},     {12, true, true, true, true}};
  for (const auto& wanted : cases) {
    Tarvo::setACTIVATE_STATUS(wanted.mode);
    EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}).has_value(), wanted.raw) << wanted.mode;
    EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {}).has_value(), wanted.extrapolated)
        << wanted.mode;
    EXPECT_FALSE(tarvo.getLocationHistory(3, {}, {}));
    EXPECT_EQ(tarvo.getNextTrip().has_value(), wanted.trip) << wanted.mode;
    EXPECT_EQ(tarvo.getCurrentLocation().has_value(), wanted.position) << wanted.mode;
  }
  Tarvo::setACTIVATE_STATUS(12);
  tarvo.resetLocalHistory();
  EXPECT_FALSE(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {}));
  const auto raw = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {});
  ASSERT_TRUE(raw);
  EXPECT_EQ(raw->locations.size(), 2u);
  EXPECT_EQ(raw->firstLocation.latitude, raw->locations.toVector()[0].latitude);
}

TEST_F(Facade, KeepsTheModeAsAPairedMarkerThatOnlyModeTwoSurvives) {
  for (const std::int64_t mode : {std::int64_t{12}, std::int64_t{2}}) {
    Tarvo().activate(mode);
    EXPECT_EQ(UserDefaults::standard().integer("ACTIVATE_STATUS_YES"), mode);
    EXPECT_EQ(UserDefaults::standard().integer("TARVO_ACTIVATE_STATUS"), 2);
    Tarvo::setACTIVATE_STATUS(-4);  // as after a relaunch
    Tarvo relaunched;
    EXPECT_EQ(Tarvo::ACTIVATE_STATUS(), mode == 2 ? 2 : -4);
  }
  EXPECT_EQ(Tarvo::clientID(), "demo");
}

TEST_F(Facade, TellsTheNewestObjectOfWholeBatchesUntilToldToStop) {
  Tarvo older;
  auto olderHost = std::make_shared<DiaryDelegate>();
  older.setDelegate(olderHost);
  auto host = std::make_shared<DiaryDelegate>();
  std::optional<Tarvo> newest = Tarvo();
  newest->setDelegate(host);
  host->inside = [&](Tarvo& self) { EXPECT_TRUE(self == *newest && self != older); };
  const Tarvo moved = std::move(older);
  EXPECT_TRUE(older == moved && older.delegate() == olderHost) << "a handle that was moved from is as good as before";
  newest->activate(Tarvo::LOCAL_BACKGROUND);
  LocationService::shared().deliver({fixAt(48, kStart), fixAt(48.01, kStart + 1)});
  waitUntilIdle();
  EXPECT_EQ(host->batches, std::vector<std::size_t>{2});
  newest->stopLocationUpdate();
  drive(1);
  newest->serviceConnect();
  drive(1);
  EXPECT_EQ(host->batches.size(), 1u) << "collection goes on, but the host is not told";
  newest->requestLocationUpdate();
  drive(1);
  EXPECT_EQ(host->batches.size(), 2u);
  newest.reset();
  drive(1);
  EXPECT_EQ(host->batches.size(), 2u);
  EXPECT_TRUE(olderHost->batches.empty()) << "an older object does not take over";
  older.setDelegate(olderHost);
  drive(1);
  EXPECT_EQ(olderHost->batches.size(), 1u) << "unless it is given a delegate";
  // Six fixes, the two of the first batch counted singly, and the event of serviceConnect.
  EXPECT_EQ(engine().syncStatus().stored, 8);
}

TEST_F(Facade, LetsTheHostStopEverythingFromInsideACallback) {
  startBackend();
  Tarvo tarvo = registered();
  auto host = std::make_shared<DiaryDelegate>();
  host->inside = [](Tarvo& self) {
    self.stopLocationUpdate();
    self.getCurrentLocation();
    self.activate(Tarvo::DEACTIVE_ALL);
  };
  tarvo.setDelegate(host);
  LocationService::shared().deliver({fixAt(48, kStart + 200)});
  // Meanwhile this thread wants the queue that the callback wants.
  engine().requestLocationUpdate();
  waitUntilIdle();
  EXPECT_EQ(host->batches.size(), 1u);
  EXPECT_FALSE(engine().tarvoStarted());
  drive(2);
  EXPECT_EQ(host->batches.size(), 1u);
}

TEST_F(Facade, AsksForThePermissionThatTheModeNeedsAndAnswersTheStatusBefore) {
  Tarvo tarvo;
  std::string asked;
  LocationService::shared().setPrompt([&](platform::AuthorizationRequest request) {
    asked += request == platform::AuthorizationRequest::always ? "always " : "whenInUse ";
  });
  for (const std::int64_t mode : {0, 4, -1}) {
    LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::notDetermined);
    EXPECT_EQ(engine().checkAndRequestLocationAuthorization(mode), CLAuthorizationStatus::notDetermined);
    waitUntilIdle();
  }
  EXPECT_EQ(asked, "whenInUse always always ");
  const struct {
    CLAuthorizationStatus status;
    std::int64_t mode;
    bool alerts;
  } cases[] = {{CLAuthorizationStatus::authorizedAlways, 0, false},
               {CLAuthorizationStatus::authorizedWhenInUse, 8, false},
               {CLAuthorizationStatus::restricted, 8, false},
               {CLAuthorizationStatus::denied, 4, true}};
  for (const auto& wanted : cases) {
    LocationService::shared().setAuthorizationStatus(wanted.status);
    EXPECT_EQ(engine().checkAndRequestLocationAuthorization(wanted.mode), wanted.status);
    diary.clear();
    tarvo.activate(Tarvo::DEACTIVE_ALL);
    tarvo.activate(wanted.mode);
    // Once by the activation, once by the start that it causes.
    EXPECT_EQ(diary.count("requestAgainLocationAuthorization"), wanted.alerts ? 2u : 0u);
    waitUntilIdle();
  }
}

TEST_F(Facade, TakesThePermissionThatItFindsForNoChange) {
  /// Holds the service's reports up until an engine that does not wait for its own would have been activated.
  struct Slow final : platform::CLLocationManagerDelegate {
    void didUpdateLocations(platform::CLLocationManager&, const std::vector<platform::CLLocation>&) override {}
    void didFailWithError(platform::CLLocationManager&, const platform::Error&) override {}
    void didChangeAuthorization(platform::CLLocationManager&, CLAuthorizationStatus) override {
      activated.get_future().wait_for(std::chrono::milliseconds(200));
    }
    std::promise<void> activated;
  } slow;
  platform::CLLocationManager another;
  another.setDelegate(&slow);
  Tarvo tarvo;
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  slow.activated.set_value();
  another.setDelegate(nullptr);
  waitUntilIdle();
  EXPECT_EQ(diary.count("didChangeAuthorization"), 0u);
  LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::authorizedWhenInUse);
  waitUntilIdle();
  EXPECT_EQ(diary.count("didChangeAuthorization [loc] status:4"), 1u);
}

TEST_F(Facade, RecordsChangesOfPermissionAtTheLastKnownPlaceWhileStarted) {
  Tarvo tarvo;
  LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::denied);
  waitUntilIdle();
  LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::authorizedAlways);
  waitUntilIdle();
  EXPECT_EQ(diary.count("didChangeAuthorization"), 0u);
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  waitUntilIdle();
  diary.clear();
  for (const auto status : {CLAuthorizationStatus::denied, CLAuthorizationStatus::authorizedWhenInUse}) {
    LocationService::shared().setAuthorizationStatus(status);
    waitUntilIdle();
  }
  EXPECT_EQ(engine().syncStatus().stored, 0) << "without a last position there is nothing to record";
  drive(1);
  for (const auto status : {CLAuthorizationStatus::restricted, CLAuthorizationStatus::notDetermined,
                            CLAuthorizationStatus::authorizedAlways}) {
    LocationService::shared().setAuthorizationStatus(status);
    waitUntilIdle();
  }
  EXPECT_EQ(diary.count("didChangeAuthorization [loc] unknown status:0"), 1u);
  const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {});
  ASSERT_TRUE(history);
  std::vector<std::string> words;
  for (const auto& record : history->locations.toVector()) words.push_back(record.serviceAction.value_or("?"));
  EXPECT_EQ(words, (std::vector<std::string>{"loc_changed", "loc_disabled", "loc_enabled"}));
  EXPECT_EQ(history->locations.toVector()[1].localisationMethod, "event");
}

TEST_F(Facade, RefreshesForAPushByPermissionAndKeepsOtherSendersOut) {
  startBackend();
  Tarvo tarvo = registered();
  drive(1);
  EXPECT_FALSE(tarvo.didReceiveRemoteNotification({{"messageFrom", "someone"}}));
  EXPECT_FALSE(tarvo.didReceiveRemoteNotification({{"messageFrom", 1}}));
  const platform::Dictionary push{{"messageFrom", "tarvo"}};
  EXPECT_TRUE(tarvo.didReceiveRemoteNotification(push));
  EXPECT_TRUE(tarvo.didReceiveRemoteNotification(push));
  LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::authorizedWhenInUse);
  EXPECT_TRUE(tarvo.didReceiveRemoteNotification(push));
  waitUntilIdle();
  Tarvo::setACTIVATE_STATUS(4);
  EXPECT_TRUE(tarvo.didReceiveRemoteNotification(push));
  waitUntilIdle();
  const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {});
  ASSERT_TRUE(history);
  std::vector<std::string> pushed;
  for (const auto& record : history->locations.toVector())
    if (record.localisationMethod == "push") pushed.push_back(record.serviceAction.value_or("?"));
  EXPECT_EQ(pushed, (std::vector<std::string>{"loc_enabled", "loc_refresh", "loc_disabled"}));
}

TEST_F(Facade, KeepsAccountCallsBelowModeEightAndReplaysTagsOnAPush) {
  startBackend();
  Tarvo tarvo = registered(Tarvo::LOCAL_BACKGROUND);
  drive(1);
  const auto host = std::make_shared<DiaryDelegate>();
  tarvo.setDelegate(host);
  const auto callAll = [&] {
    tarvo.setTags("colour", "red");
    tarvo.unsetTags("old");
    tarvo.setSubscription("news", "n");
    tarvo.setUnSubscription("ads");
    tarvo.requestRouteMatch();
    tarvo.requestPredictionUpdate();
    tarvo.didRegisterForRemoteNotificationsWithDeviceToken("t0k");
    waitUntilIdle();
  };
  diary.clear();
  callAll();
  EXPECT_EQ(diary.count("NetworkManager:"), 0u) << "nothing leaves the device";
  EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST().size(), 3u);
  EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST(), std::set<std::string>{"ads"});
  EXPECT_EQ(Tarvo::SET_TAGS_LIST().at("colour"), "red");
  EXPECT_EQ(Tarvo::UNSET_TAGS_LIST(), std::vector<std::string>{"old"});
  EXPECT_EQ(diary.count("UNSUBSCRIPTION_LIST : : : []"), 1u);
  EXPECT_EQ(diary.count("Tarvo : token t0k"), 1u);
  engine().addNewLastTrip({{{"pasttrip_id", 7}}});
  waitUntilIdle();
  EXPECT_EQ(host->matched, std::vector<std::int64_t>{7});

  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  waitUntilIdle();
  EXPECT_EQ(diary.count("Tarvo : Tarvo bundleID : org.example.host"), 1u);
  EXPECT_EQ(diary.count("Tarvo  : Tarvo API_KEY key"), 1u);
  EXPECT_EQ(diary.count("NetworkManager:sendTokenremoteWebServer [net] mainThread:"), 1u) << "with the registration";
  diary.clear();
  EXPECT_TRUE(tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}, {"name", "anything"}}));
  waitUntilIdle();
  EXPECT_GT(diary.find("NetworkManager:setTags :[success]"), diary.find("LocationManager:refreshLoc [loc]: "));
  EXPECT_EQ(diary.count("NetworkManager:unsetTags :[success]"), 1u);
  callAll();
  EXPECT_EQ(diary.count("NetworkManager:setTags :[success]"), 2u);
  EXPECT_TRUE(NetworkManager::SUBSCRIPTION_LIST().empty());
  EXPECT_TRUE(NetworkManager::UNSUBSCRIPTION_LIST().empty());
}

TEST_F(Facade, LetsTheHostReadAndSetTheProcessWideValuesWhole) {
  startBackend();
  Tarvo tarvo = registered();
  drive(1);
  Tarvo::setSET_TAGS_LIST({{"colour", "red"}, {"size", "l"}});
  Tarvo::setUNSET_TAGS_LIST({"old"});
  tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
  waitUntilIdle();
  EXPECT_EQ(diary.count("NetworkManager:setTags :[success]"), 2u);
  EXPECT_EQ(diary.count("NetworkManager:unsetTags :[success]"), 1u);
  Tarvo::setSET_TAGS_LIST({});
  Tarvo::setUNSET_TAGS_LIST({});
  EXPECT_TRUE(Tarvo::SET_TAGS_LIST().empty() && Tarvo::UNSET_TAGS_LIST().empty());
  NetworkManager::setSUBSCRIPTION_LIST({{"news", "n"}});
  NetworkManager::setUNSUBSCRIPTION_LIST({"ads", "spam"});
  EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST().at("news"), "n");
  EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().size(), 2u);
  Trip trip;
  trip.id = 5;
  Tarvo::setLastPrediction(trip);
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_GEOPROFILE);
  EXPECT_EQ(tarvo.getNextTrip()->id, 5);
  EXPECT_EQ(tarvo.defaults().integer("ACTIVATE_STATUS_YES"), Tarvo::BACKEND_BACKGROUND);
  const auto users = engine().getUser();
  ASSERT_EQ(users.size(), 1u);
  EXPECT_EQ(users[0].uuid, LocationManager::userUUID());
  EXPECT_TRUE(users[0].timestamp);
}

TEST_F(Facade, RunsOnWithoutAStoreAfterOneLineThatSaysSo) {
  std::filesystem::create_directories(home.path() / "Documents");
  const auto file = home.path() / "Documents" / "Marrowgate-Tarvo-db3.sqlite";
  const std::string garbage(5000, 'x');
  ASSERT_FALSE(platform::writeFileAtomically(file, garbage, false));
  startBackend();
  Tarvo tarvo = registered();
  drive(2);
  EXPECT_EQ(diary.count("YOUR_ERROR_DOMAIN"), 1u);
  EXPECT_EQ(diary.count("Unresolved error Error Domain=YOUR_ERROR_DOMAIN Code=9999"), 1u);
  EXPECT_FALSE(engine().syncStatus().storeAvailable);
  EXPECT_FALSE(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}));
  EXPECT_FALSE(tarvo.getCurrentLocation());
  auto bytes = platform::readFile(file);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(*bytes, garbage) << "what is not ours is left as it is";
}

TEST_F(Facade, TellsOnceThatItsStoreWasRemovedWhoeverAsksForCountsInBetween) {
  Tarvo tarvo;
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  drive(2);
  std::filesystem::remove(home.path() / "Documents" / ObjectStore::kFileName);
  for (const int unsaved : {0, 2}) {
    EXPECT_EQ(diary.count("was removed, replaced or cut short"), unsaved == 0 ? 0u : 1u);
    const auto status = engine().syncStatus();
    EXPECT_FALSE(status.storeAvailable);
    EXPECT_EQ(status.stored, 0);
    EXPECT_EQ(status.unsaved, unsaved);
    drive(2);
  }
  EXPECT_EQ(diary.count("was removed, replaced or cut short"), 1u);
}

/// A host that throws wherever it is called.
struct Thrower : TarvoDelegate, platform::LocationSource, platform::HostApplication {
  static void fail() { throw std::runtime_error("mine"); }
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<platform::CLLocation>&) override { fail(); }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory&) override { fail(); }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override { fail(); }
  void start(double) override { fail(); }
  void stop() override {}
  void registerForRemoteNotifications() override { fail(); }
};

TEST_F(Facade, EndsTheProcessWithTheNameOfACallbackThatThrows) {
  const auto host = std::make_shared<Thrower>();
  const std::pair<const char*, std::function<void(Tarvo&)>> cases[] = {
      {"tarvoDidReceiveNewLocations threw an exception: mine", [&](Tarvo&) { drive(1); }},
      {"tarvoOnRouteMatched threw",
       [](Tarvo&) {
         engine().addNewLastTrip({{{"pasttrip_id", 7}}});
       }},
      {"tarvoOnPredictionUpdate threw", [](Tarvo&) { EngineLink::current().predictionStored(); }},
      {"the completion handler of background events threw",
       [](Tarvo& tarvo) { tarvo.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), Thrower::fail); }},
      {"registerForRemoteNotifications threw",
       [&](Tarvo&) {
         platform::setHostApplication(host);
         platform::UIApplication::shared().registerForRemoteNotifications();
       }},
      {"LocationSource::start threw", [&](Tarvo&) { LocationService::shared().setSource(host); }},
      {"a block of the main queue threw an exception\n",
       [](Tarvo&) { platform::MainQueue::main().async([] { throw 7; }); }},
      {"the system log's sink threw",
       [](Tarvo& tarvo) {
         platform::setSystemLogSink([](std::string_view) { Thrower::fail(); });
         tarvo.stopLocationUpdate();
       }},
      // Last: the permission is kept in the home.
      {"the permission prompt threw",
       [](Tarvo& tarvo) {
         LocationService::shared().setPrompt([](auto) { Thrower::fail(); });
         LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::notDetermined);
         tarvo.getCurrentLocation();
       }},
  };
  for (const auto& [message, provoke] : cases) {
    const auto inChild = [&provoke = provoke, this, host] {
      platform::setSystemLogSink({});
      Tarvo tarvo;
      tarvo.setDelegate(host);
      tarvo.activate(Tarvo::LOCAL_BACKGROUND);
      tarvo.requestRouteMatch();
      tarvo.requestPredictionUpdate();
      provoke(tarvo);
      waitUntilIdle();
    };
    EXPECT_DEATH(inChild(), std::string("Fatal error: ") + message) << message;
  }
}

TEST_F(Facade, StopsTheProcessOnlyWhenThereIsNowhereForTheStore) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        platform::setSystemLogSink({});
        platform::setDocumentDirectories({});
        Tarvo tarvo;
      },
      "Fatal error: there is no document directory");
}

TEST_F(Facade, PutsTheStoreIntoTheLastDocumentsDirectoryAndTheLogIntoTheFirst) {
  const auto first = home.path() / "first";
  const auto last = home.path() / "last";
  for (const auto& directory : {first, last}) std::filesystem::create_directories(directory);
  platform::setDocumentDirectories({first, last});
  UserDefaults::standard().set("tarvologlevel", 6);
  Tarvo tarvo;
  EXPECT_TRUE(LocationManager::setUserUUID("U"));
  for (const char* none : {"", "two words", "a/b", "..", "50%", "a?b"})
    EXPECT_FALSE(LocationManager::setUserUUID(none)) << none;
  tarvo.activate(4);
  waitUntilIdle();
  EXPECT_TRUE(std::filesystem::exists(last / "Marrowgate-Tarvo-db3.sqlite"));
  EXPECT_TRUE(std::filesystem::exists(first / "TarvoLog_2024-06-15_U_IOS.txt"));
}

}  // namespace
}  // namespace tarvo
