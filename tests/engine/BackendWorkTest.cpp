#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "engine/Harness.h"

namespace tarvo {
namespace {

using platform::Seconds;
using platform::UserDefaults;
using test::DiaryDelegate;

/// What the backend derives, and what else goes to and fro beside the positions.
class BackendWork : public test::WholeSdk {
 protected:
  using Counts = std::array<std::size_t, 3>;

  /// Prediction, trips and places asked for since the last call.
  Counts downloads() {
    const Counts counts{diary.count("NetworkManager:getNextTrip :[called]"),
                        diary.count("NetworkManager:getLocationHistoryEXTRAPOLATED [api] "),
                        diary.count("NetworkManager:getPOI : called")};
    diary.clear();
    return counts;
  }
  /// One position, posted and answered.
  void batch() {
    collect(1);
    settle();
  }
  std::filesystem::path logOf(const std::string& day) const {
    return home.path() / "Documents" / ("TarvoLog_" + day + "_" + LocationManager::userUUID().value() + "_IOS.txt");
  }
  static bool exists(const std::filesystem::path& file) { return std::filesystem::exists(file); }

  const platform::Dictionary push{{"messageFrom", "tarvo"}};
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
  batch();
  EXPECT_EQ(downloads(), (Counts{1, 1, 1}));
  EXPECT_EQ(host->matched, std::vector<std::int64_t>{43}) << "the newest trip alone, once for each download";
  EXPECT_EQ(host->predictions, 0) << "not asked for";
  const auto trip = tarvo.getNextTrip();
  ASSERT_TRUE(trip);
  EXPECT_EQ(trip->id, 7);
  EXPECT_GE(trip->toLocations().value().size(), 2u);
  EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_EXTRAPOLATED, {}, {})->pasttrips.size(), 3u);
  const std::size_t places = tarvo.getPointOfInterests().size();
  EXPECT_GE(places, 2u);
  batch();
  EXPECT_EQ(downloads(), (Counts{0, 0, 0}));

  // Other counters: places fail at first, the list of trips ends below what was announced.
  tarvo.requestPredictionUpdate();
  waitUntilIdle();
  canned.lastPredictionID = 8;
  canned.lastPasttripID = 44;
  canned.poiVersion = 6;
  backend.serve(canned);
  backend.faults().answerNext("pois", 1, 500);
  downloads();
  batch();
  EXPECT_EQ(downloads(), (Counts{1, 1, 1}));
  EXPECT_EQ(host->predictions, 1);
  EXPECT_EQ(host->matched.size(), 2u);
  EXPECT_EQ(tarvo.getPointOfInterests().size(), places);
  batch();
  EXPECT_EQ(downloads(), (Counts{1, 1, 1})) << "each asks again until what it holds is what was announced";
  EXPECT_EQ(UserDefaults::standard().integer("poi_version"), 6);
  batch();
  EXPECT_EQ(downloads(), (Counts{1, 1, 0}));
  tarvo.stopRouteMatch();
  tarvo.stopPredictionUpdate();
  batch();
  EXPECT_EQ(host->predictions, 3);
  EXPECT_EQ(host->matched.size(), 4u);
}

TEST_F(BackendWork, ALogFileGoesOnTheNextDayAndIsDeletedWhenTheBackendHoldsIt) {
  startBackend();
  UserDefaults::standard().set("tarvologlevel", 3);
  Tarvo tarvo = registered();
  drive(2);
  const auto first = logOf("2024-06-15");
  ASSERT_TRUE(exists(first));
  tarvo.didReceiveRemoteNotification(push);
  waitUntilIdle();
  EXPECT_EQ(backend.holdings().logs, 0) << "never today's";

  clock->advanceTo(platform::dateSince1970(1718496000));  // midnight
  const auto host = first.parent_path() / "host.txt";
  ASSERT_FALSE(platform::writeFileAtomically(host, "the host's own", false));
  const char* refusals[] = {"{\"success\":false}", "{\"success\":true,\"results\":\"seen\"}", "Files is not uploaded",
                            "{\"success\":true,\"results\":\"uploaded\",\"file\":\"host.txt\"}"};
  for (const char* refusal : refusals) {
    backend.faults().answerNext("uplog", 1, 200, refusal);
    tarvo.didReceiveRemoteNotification(push);
    waitUntilIdle();
    EXPECT_TRUE(exists(first) && exists(host)) << refusal;
  }
  tarvo.didReceiveRemoteNotification(push);
  waitUntilIdle();
  EXPECT_FALSE(exists(first));
  EXPECT_TRUE(exists(logOf("2024-06-16")));
  EXPECT_EQ(backend.holdings().logs, 1);
  auto kept = platform::readFile(backend.logs() / first.filename());
  ASSERT_TRUE(kept);
  EXPECT_TRUE(kept->starts_with("[[2024-06-15T10:")) << "without the multipart frame";
  EXPECT_EQ(kept->find("--boundary"), std::string::npos);
}

TEST_F(BackendWork, AnUploadOfAKilledProcessIsCompletedByTheNext) {
  int ports[2];
  ASSERT_EQ(::pipe(ports), 0);
  const pid_t child = ::fork();  // no thread runs yet
  ASSERT_GE(child, 0);
  if (child == 0) {
    sandbox::Backend first({"demo", "key", "secret"}, home.path() / "sandbox.sqlite");
    first.start();
    LocationManager::setRemoteWebServerURL(first.baseURL());
    UserDefaults::standard().set("tarvologlevel", 3);
    Tarvo tarvo = registered();
    drive(2);
    clock->advance(Seconds(86400));
    first.faults().hangNext("uplog", 1);
    tarvo.didReceiveRemoteNotification(push);
    const int port = first.faults().waitUntilHanging(1, std::chrono::seconds(30)) ? first.port() : 0;
    if (::write(ports[1], &port, sizeof port) == sizeof port) ::raise(SIGKILL);
    ::_exit(1);
  }
  int port = 0, status = 0;
  ASSERT_EQ(::read(ports[0], &port, sizeof port), static_cast<ssize_t>(sizeof port));
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  ASSERT_GT(port, 0);

  clock->advance(Seconds(86600));
  backend.start(port);
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL(backend.baseURL()));
  Tarvo tarvo;
  int finished = 0;
  EXPECT_FALSE(tarvo.handleEventsForBackgroundURLSession("another", [&] { finished += 100; }));
  EXPECT_TRUE(tarvo.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), [&] { ++finished; }));
  waitUntilIdle();
  EXPECT_EQ(backend.holdings().logs, 1);
  EXPECT_EQ(finished, 1);
  EXPECT_FALSE(exists(logOf("2024-06-15")));
  EXPECT_EQ(diary.count("sendLogToRemoteWebServer"), 0u) << "nothing new was sent";
}

}  // namespace
}  // namespace tarvo
