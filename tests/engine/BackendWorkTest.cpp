#include <array>
#include <csignal>

#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

namespace tarvo {
namespace {

using platform::Seconds;
using platform::UserDefaults;
using test::DiaryDelegate;

/// What the backend derives, and what else goes to and fro beside the positions.
class BackendWork : public test::WholeSdk {
 protected:
  using Counts = std::array<std::size_t, 3>;

  /// Prediction, trips and places asked for after one position is posted and answered.
  Counts downloadsOfABatch() {
    collect(1);
    settle();
    const Counts counts{diary.count("NetworkManager:getNextTrip :[called]"),
                        diary.count("NetworkManager:getLocationHistoryEXTRAPOLATED [api] "),
                        diary.count("NetworkManager:getPOI : called")};
    diary.clear();
    return counts;
  }
  std::filesystem::path logOf(const std::string& day) const {
    return home.path() / "Documents" / ("TarvoLog_" + day + "_" + LocationManager::userUUID().value() + "_IOS.txt");
  }
  static bool exists(const std::filesystem::path& file) { return std::filesystem::exists(file); }
};

TEST_F(BackendWork, DownloadsWhatDiffersFromWhatIsHeldAndTellsTheHost) {
  startBackend();
  sandbox::Canned canned =
      sandbox::readCanned(std::filesystem::path(__FILE__).parent_path() / "../../apps/demo/backend.json");
  backend.serve(canned);
  Tarvo tarvo = registered(Tarvo::BACKEND_GEOPROFILE);
  const auto host = std::make_shared<DiaryDelegate>();
  tarvo.setDelegate(host);
  tarvo.requestRouteMatch();
  diary.clear();
  EXPECT_EQ(downloadsOfABatch(), (Counts{1, 1, 1}));
  EXPECT_EQ(host->matched, std::vector<std::int64_t>{43}) << "the newest trip alone, once for each download";
  EXPECT_EQ(host->predictions, 0) << "not asked for";
  EXPECT_EQ(tarvo.getNextTrip().value().id, 7);
  EXPECT_GE(tarvo.getNextTrip()->toLocations().value().size(), 2u);
  EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {})->pasttrips.size(), 3u);
  EXPECT_EQ(tarvo.getPointOfInterests().size(), 3u);
  EXPECT_EQ(downloadsOfABatch(), (Counts{0, 0, 0}));

  // Other counters: places fail at first, the list of trips ends below what was announced.
  tarvo.requestPredictionUpdate();
  waitUntilIdle();
  canned.lastPredictionID = 8;
  canned.lastPasttripID = 44;
  canned.poiVersion = 6;
  backend.serve(canned);
  backend.faults().answerNext("pois", 1, 500);
  diary.clear();
  EXPECT_EQ(downloadsOfABatch(), (Counts{1, 1, 1}));
  EXPECT_EQ(tarvo.getPointOfInterests().size(), 3u);
  EXPECT_EQ(downloadsOfABatch(), (Counts{1, 1, 1})) << "each asks again until what it holds is what was announced";
  EXPECT_EQ(UserDefaults::standard().integer("poi_version"), 6);
  EXPECT_EQ(downloadsOfABatch(), (Counts{1, 1, 0}));
  tarvo.stopRouteMatch();
  tarvo.stopPredictionUpdate();
  downloadsOfABatch();
  EXPECT_EQ(host->predictions, 3);
  EXPECT_EQ(host->matched.size(), 4u);
}

TEST_F(BackendWork, WhatBreaksTheProtocolIsDroppedWhereTheHostWantsIt) {
  Tarvo::setDeliveryOptions({.dropsProtocolBreaks = true});
  Tarvo tarvo;
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
  for (const auto status :
       {platform::CLAuthorizationStatus::authorizedAlways, platform::CLAuthorizationStatus::denied}) {
    permit(status);
    push(tarvo);
  }
  engine().addNewLastTrip({platform::Dictionary{{"route", 1}}});
  engine().addNewLastTrip({platform::Dictionary{{"pasttrip_id", "1"}}});
  waitUntilIdle();
  for (const char* line :
       {"refreshLoc: the location service has no position yet", "refreshLoc: there is no last position",
        "no past trip has an identifier", R"(the backend's "pasttrip_id" is no integer)"})
    EXPECT_EQ(diary.count(line), 1u) << line;
  EXPECT_FALSE(engine().getLastPastTrip());
}

TEST_F(BackendWork, ALogFileIsDeletedOnlyWhenTheBackendSaysThatItHoldsIt) {
  UserDefaults::standard().set("tarvologlevel", 3);
  Tarvo tarvo = online();
  drive(1);
  const auto log = logOf("2024-06-15"), host = log.parent_path() / "host.txt";
  ASSERT_TRUE(exists(log));
  ASSERT_FALSE(platform::writeFileAtomically(host, "the host's own", false));
  clock->advanceTo(platform::dateSince1970(1718496000));  // midnight
  for (const char* refusal : {"{\"success\":false}", "{\"success\":true,\"results\":\"seen\"}", "Files is not uploaded",
                              "{\"success\":true,\"results\":\"uploaded\",\"file\":\"host.txt\"}"}) {
    backend.faults().answerNext("uplog", 1, 200, refusal);
    push(tarvo);
    EXPECT_TRUE(exists(log) && exists(host)) << refusal;
  }
  push(tarvo);
  EXPECT_FALSE(exists(log));
  EXPECT_TRUE(exists(logOf("2024-06-16")));
  auto kept = platform::readFile(backend.logs() / log.filename());
  EXPECT_TRUE(kept && kept->starts_with("[[2024-06-15T10:")) << "without the multipart frame";
}

/// A home whose last process was killed while it uploaded a log file, and the backend that waits for that file.
class AfterAKill : public BackendWork {
 protected:
  void SetUp() override {
    BackendWork::SetUp();
    const auto file = home.path() / "port";
    const auto uploadAndDie = [&] {
      sandbox::Backend first({"demo", "key", "secret"}, home.path() / "sandbox.sqlite");
      first.start();
      LocationManager::setRemoteWebServerURL(first.baseURL());
      UserDefaults::standard().set("tarvologlevel", 3);
      Tarvo tarvo = registered();
      drive(2);
      clock->advance(Seconds(86400));
      first.faults().hangNext("uplog", 1);
      tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
      if (!first.faults().waitUntilHanging(1, std::chrono::seconds(30))) return 1;
      return platform::writeFileAtomically(file, std::to_string(first.port()), false) ? 1 : ::raise(SIGKILL);
    };
    ASSERT_EQ(test::inFreshProcess(uploadAndDie), -SIGKILL);

    clock->advance(Seconds(86600));
    backend.start(std::stoi(platform::readFile(file).value()));
    ASSERT_TRUE(LocationManager::setRemoteWebServerURL(backend.baseURL()));
  }

  void expectCompleted(bool completed) {
    waitUntilIdle();
    EXPECT_EQ(backend.holdings().logs, completed ? 1 : 0);
    EXPECT_EQ(exists(logOf("2024-06-15")), !completed);
  }
  /// Hands over the events of the background session, which are finished on return.
  static void wake(Tarvo& tarvo) {
    int finished = 0;
    EXPECT_TRUE(tarvo.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), [&] { ++finished; }));
    waitUntilIdle();
    EXPECT_EQ(finished, 1);
  }
};

TEST_F(AfterAKill, TheUploadGoesOnWhenTheHostIsWoken) {
  Tarvo tarvo;
  EXPECT_FALSE(tarvo.handleEventsForBackgroundURLSession("another", [] { FAIL() << "another's handler"; }));
  wake(tarvo);
  expectCompleted(true);
  EXPECT_EQ(diary.count("sendLogToRemoteWebServer"), 0u) << "nothing new was sent";
}

TEST_F(BackendWork, StopsBeforeItStoresTripsWhoseIdentifiersItCannotTake) {
  const auto trip = [](platform::Value id) { return platform::Dictionary{{"pasttrip_id", std::move(id)}}; };
  const platform::Dictionary without{{"arrival_lat", 48.5}};
  const std::vector<platform::Dictionary> bad[] = {{trip(7), trip(7.5)},     {trip(7), trip(9223372036854775808.0)},
                                                   {trip(7), trip("8")},     {trip(7), trip(true)},
                                                   {trip(nullptr), trip(7)}, {without}};
  for (const auto& trips : bad) {
    const auto ingest = [&] {
      ObjectStore store;
      return DownloadIngest(store).addNewLastTrip(trips) ? 0 : 1;
    };
    EXPECT_EQ(test::inFreshProcess(ingest), -SIGABRT) << &trips - bad;
  }
  ObjectStore store;
  DownloadIngest ingest(store);
  EXPECT_FALSE(HistoryReads(store).getLastPastTrip()) << "the next launch starts clean";
  EXPECT_EQ(ingest.addNewLastTrip({trip(7.0), without})->pasttrips.front().pasttrip_id, 7);
  EXPECT_EQ(ingest.addNewLastTrip({without})->pasttrips.front().pasttrip_id, 7);
}

class ByAServiceConnect : public AfterAKill, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(OrAnActivation, ByAServiceConnect, testing::Bool());

TEST_P(ByAServiceConnect, TheUploadThatRestsInLocalModesGoesOn) {
  Tarvo tarvo;
  tarvo.activate(Tarvo::LOCAL_FOREGROUND);
  platform::UIApplication::shared().didFinishLaunching();
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  tarvo.serviceConnect();
  wake(tarvo);
  expectCompleted(false);
  if (GetParam()) {
    Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
    tarvo.serviceConnect();
  } else {
    tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  }
  expectCompleted(true);
}

TEST_F(BackendWork, AClientBeforeTheFirstTarvoBuildsTheEngineWhichItsSessionTells) {
  startBackend();
  Tarvo::setClientID("demo");
  Tarvo::setTarvoapiKey("key");
  NetworkManager::setApiKeySecret("secret");
  NetworkManager client;
  EXPECT_EQ(diary.count("LocationManager:init"), 0u);
  // As the engine itself describes this device, and once more when it is built.
  platform::UIDevice::current().setIdentifierForVendor("");
  client.sendUserToRemoteWebServer(
      R"({"mobileid":"{\"os\":\"ios\", \"iosid\":\"unknown\"}","mobileos":"ios","phone_description":"","sensors":""})");
  waitUntilIdle();
  EXPECT_EQ(diary.count("LocationManager:init [loc] [init] mainThread:"), 1u);
  ASSERT_TRUE(LocationManager::userUUID());
}

}  // namespace
}  // namespace tarvo
