#include <thread>

#include "platform/foundation/FaultPoint.h"
#include "support/WholeSdk.h"

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
  tarvo.requestLocationUpdate();
  EXPECT_EQ(diary.count("LocationManager:requestLocationUpdate"), 0u) << "deactivated";
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  drive(2);
  engine().addNewLastTrip({{{"pasttrip_id", 7}, {"start_time", "2024-06-15T10:00:00.000+0000"}}});
  engine().addNewPOI({{{"poi_id", 1}, {"zone_geo_json", platform::Dictionary{}}}});
  waitUntilIdle();
  EXPECT_EQ(tarvo.getPointOfInterests(), std::vector<std::string>{"{}"});
  Trip trip;
  trip.id = 5;
  Tarvo::setLastPrediction(trip);
  const std::pair<std::int64_t, const char*> gates[] = {{-4, ""},
                                                        {-1, "position"},
                                                        {0, "position"},
                                                        {3, "position"},
                                                        {4, "raw position"},
                                                        {7, "raw position"},
                                                        {8, "raw trips position"},
                                                        {12, "raw trips 5 position"}};
  for (const auto& [mode, open] : gates) {
    Tarvo::setACTIVATE_STATUS(mode);
    std::string got;
    if (tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {})) got += "raw ";
    if (tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {})) got += "trips ";
    if (const auto next = tarvo.getNextTrip()) got += platform::concat(next->id, " ");
    if (tarvo.getCurrentLocation()) got += "position";
    EXPECT_EQ(got, open) << mode;
  }
  tarvo.resetLocalHistory();
  EXPECT_FALSE(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {}));
  EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}).value().locations.size(), 2u);
}

TEST_F(Facade, KeepsTheModeAsAPairedMarkerThatOnlyModeTwoSurvives) {
  for (const std::int64_t mode : {12, 2}) {
    Tarvo tarvo;
    tarvo.activate(mode);
    EXPECT_EQ(tarvo.defaults().integer("ACTIVATE_STATUS_YES"), mode);
    EXPECT_EQ(tarvo.defaults().integer("TARVO_ACTIVATE_STATUS"), 2);
    Tarvo::setACTIVATE_STATUS(-4);  // as after a relaunch
    Tarvo relaunched;
    EXPECT_EQ(Tarvo::ACTIVATE_STATUS(), mode == 2 ? 2 : -4);
  }
  EXPECT_EQ(Tarvo::clientID(), "demo");
}

TEST_F(Facade, TellsTheNewestObjectOfWholeBatchesUntilToldToStop) {
  Tarvo older;
  auto olderHost = std::make_shared<DiaryDelegate>(), host = std::make_shared<DiaryDelegate>();
  older.setDelegate(olderHost);
  std::optional<Tarvo> newest = Tarvo();
  newest->setDelegate(host);
  host->inside = [&](Tarvo& self) { EXPECT_TRUE(self == *newest && self != older); };
  newest->activate(Tarvo::LOCAL_BACKGROUND);
  newest->requestRouteMatch();
  engine().addNewLastTrip({{{"pasttrip_id", 7}}});
  deliver(fixAt(48, kStart), fixAt(48.01, kStart + 1));
  EXPECT_EQ(host->batches, std::vector<std::size_t>{2});
  EXPECT_EQ(host->matched, std::vector<std::int64_t>{7}) << "in every mode, once asked for";
  newest->stopLocationUpdate();
  drive(1);
  newest->serviceConnect();
  drive(1);
  EXPECT_EQ(host->batches.size(), 1u) << "collection goes on, but the host is not told";
  newest->requestLocationUpdate();
  drive(1);
  newest.reset();
  drive(1);
  EXPECT_EQ(host->batches.size(), 2u);
  EXPECT_TRUE(olderHost->batches.empty()) << "an older object does not take over";
  const Tarvo moved = std::move(older);
  older.setDelegate(olderHost);  // a handle that was moved from is as good as before
  drive(1);
  EXPECT_EQ(olderHost->batches.size(), 1u) << "unless it is given a delegate";
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
  const std::tuple<CLAuthorizationStatus, std::int64_t, std::size_t> cases[] = {
      {CLAuthorizationStatus::authorizedAlways, 0, 0},
      {CLAuthorizationStatus::authorizedWhenInUse, 8, 0},
      {CLAuthorizationStatus::restricted, 8, 0},
      {CLAuthorizationStatus::denied, 4, 2}};  // once by the activation, once by the start that it causes
  for (const auto& [status, mode, alerts] : cases) {
    LocationService::shared().setAuthorizationStatus(status);
    EXPECT_EQ(engine().checkAndRequestLocationAuthorization(mode), status);
    diary.clear();
    tarvo.activate(Tarvo::DEACTIVE_ALL);
    tarvo.activate(mode);
    EXPECT_EQ(diary.count("requestAgainLocationAuthorization"), alerts);
    waitUntilIdle();
  }
}

TEST_F(Facade, TakesThePermissionThatItFindsForNoChange) {
  platform::faultHook = [](const char* place) {  // whoever tells of it comes late
    if (place == std::string_view("thread")) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  };
  Tarvo tarvo;
  activate(tarvo, Tarvo::LOCAL_BACKGROUND);
  EXPECT_EQ(diary.count("didChangeAuthorization"), 0u);
}

TEST_F(Facade, RecordsChangesOfPermissionAtTheLastKnownPlaceWhileStarted) {
  Tarvo tarvo;
  permit(CLAuthorizationStatus::denied);
  permit(CLAuthorizationStatus::authorizedAlways);
  EXPECT_EQ(diary.count("didChangeAuthorization"), 0u);
  activate(tarvo, Tarvo::LOCAL_BACKGROUND);
  diary.clear();
  for (const auto status : {CLAuthorizationStatus::denied, CLAuthorizationStatus::authorizedWhenInUse}) permit(status);
  EXPECT_EQ(engine().syncStatus().stored, 0) << "without a last position there is nothing to record";
  drive(1);
  for (const auto status : {CLAuthorizationStatus::restricted, CLAuthorizationStatus::notDetermined,
                            CLAuthorizationStatus::authorizedAlways})
    permit(status);
  for (const char* once : {"unknown status:0", "status:4"})
    EXPECT_EQ(diary.count(platform::concat("didChangeAuthorization [loc] ", once)), 1u) << once;
  EXPECT_EQ(recorded("event"), "loc_disabled loc_enabled ");
}

TEST_F(Facade, RefreshesForAPushByPermissionAndKeepsOtherSendersOut) {
  Tarvo tarvo = online();
  drive(1);
  const std::pair<platform::Value, bool> senders[] = {{"someone", false}, {1, false}, {"tarvo", true}, {"tarvo", true}};
  for (const auto& [sender, ours] : senders)
    EXPECT_EQ(tarvo.didReceiveRemoteNotification({{"messageFrom", sender}}), ours);
  LocationService::shared().setAuthorizationStatus(CLAuthorizationStatus::authorizedWhenInUse);
  push(tarvo);
  Tarvo::setACTIVATE_STATUS(4);
  push(tarvo);
  EXPECT_EQ(recorded("push"), "loc_enabled loc_refresh loc_disabled ");

  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
  Tarvo::setSET_TAGS_LIST({{"colour", "red"}, {"size", "l"}});
  Tarvo::setUNSET_TAGS_LIST({"old"});
  diary.clear();
  push(tarvo);
  tarvo.resetGeoProfileHistory();
  tarvo.resetBackendHistory();
  waitUntilIdle();
  for (const auto& [text, times] : {std::pair("NetworkManager:setTags :[success]", 2u),
                                    {"NetworkManager:unsetTags :[success]", 1u},
                                    {"NetworkManager:resetBackend : httpStatus 200", 1u},
                                    {"NetworkManager:resetGeoProfile : httpStatus 200", 2u}})
    EXPECT_EQ(diary.count(text), times) << text;
  EXPECT_EQ(diary.missingInOrder({"LocationManager:refreshLoc [lastloc]: ", "NetworkManager:setTags :[success]"}), "");
}

TEST_F(Facade, KeepsAccountCallsBelowModeEightAndSendsThemFromIt) {
  Tarvo tarvo = online(Tarvo::LOCAL_BACKGROUND);
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
  EXPECT_TRUE(diary.count("UNSUBSCRIPTION_LIST : : : []") == 1 && diary.count("Tarvo : token t0k") == 1);
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  for (const char* once : {"Tarvo : Tarvo bundleID : org.example.host", "Tarvo  : Tarvo API_KEY key",
                           "NetworkManager:sendTokenremoteWebServer [net] mainThread:"})
    EXPECT_EQ(diary.count(once), 1u) << once;
  callAll();
  EXPECT_TRUE(NetworkManager::SUBSCRIPTION_LIST().empty() && NetworkManager::UNSUBSCRIPTION_LIST().empty());
}

TEST_F(Facade, PutsTheStoreIntoTheLastDocumentsDirectoryAndTheLogIntoTheFirst) {
  const auto first = home.path() / "first", last = home.path() / "last";
  for (const auto& directory : {first, last}) std::filesystem::create_directories(directory);
  platform::setDocumentDirectories({first, last});
  UserDefaults::standard().set("tarvologlevel", 6);
  Tarvo tarvo;
  EXPECT_TRUE(LocationManager::setUserUUID("U") && !LocationManager::setUserUUID("a/b"));
  activate(tarvo, 4);
  EXPECT_TRUE(std::filesystem::exists(last / ObjectStore::kFileName));
  EXPECT_TRUE(std::filesystem::exists(first / "TarvoLog_2024-06-15_U_IOS.txt"));
}

}  // namespace
}  // namespace tarvo
