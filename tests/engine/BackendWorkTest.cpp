#include <array>

#include "platform/urlsession/TransferJournal.h"
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
  EXPECT_EQ(tarvo.getPointOfInterests().size(), 3u);
  EXPECT_EQ(downloadsOfABatch(), (Counts{0, 0, 0}));

  // Places fail at first, the list of trips ends below what was announced.
  canned.lastPasttripID = 44;
  canned.poiVersion = 6;
  backend.serve(canned);
  backend.faults().answerNext("pois", 1, 500);
  EXPECT_EQ(downloadsOfABatch(), (Counts{0, 1, 1}));
  EXPECT_EQ(tarvo.getPointOfInterests().size(), 3u);
  EXPECT_EQ(downloadsOfABatch(), (Counts{0, 1, 1})) << "each asks again until what it holds is what was announced";
  EXPECT_EQ(downloadsOfABatch(), (Counts{0, 1, 0}));
  EXPECT_EQ(host->matched.size(), 4u);
}

TEST_F(BackendWork, ARefreshWithoutAPositionIsDroppedWhereTheHostWantsIt) {
  Tarvo::setDeliveryOptions({.dropsProtocolBreaks = true});
  Tarvo tarvo;
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
  push(tarvo);
  permit(platform::CLAuthorizationStatus::denied);
  push(tarvo);
  for (const char* line : {"the location service has no position yet", "there is no last position"})
    EXPECT_EQ(diary.count(platform::concat("refreshLoc: ", line)), 1u);
}

TEST_F(BackendWork, ALogFileIsDeletedOnlyWhenTheBackendSaysThatItHoldsIt) {
  UserDefaults::standard().set("tarvologlevel", 3);
  Tarvo tarvo = online();
  drive(1);
  const auto documents = home.path() / "Documents", host = documents / "host.txt",
             log = documents / ("TarvoLog_2024-06-15_" + *LocationManager::userUUID() + "_IOS.txt");
  ASSERT_FALSE(platform::writeFileAtomically(host, "the host's own", false));
  clock->advanceTo(platform::dateSince1970(1718496000));  // midnight
  for (const char* refusal : {"{\"success\":false}", "{\"success\":true,\"results\":\"seen\"}", "Files is not uploaded",
                              "{\"success\":true,\"results\":\"uploaded\",\"file\":\"host.txt\"}"}) {
    backend.faults().answerNext("uplog", 1, 200, refusal);
    push(tarvo);
    EXPECT_TRUE(std::filesystem::exists(log) && std::filesystem::exists(host)) << refusal;
  }
  push(tarvo);
  EXPECT_FALSE(std::filesystem::exists(log));
  auto kept = platform::readFile(backend.logs() / *LocationManager::userUUID() / log.filename());
  EXPECT_TRUE(kept && kept->starts_with("[[2024-06-15T10:")) << "without the multipart frame";
}

class LeftUpload : public BackendWork, public testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(ByAServiceConnectOrAnActivation, LeftUpload, testing::Bool());

TEST_P(LeftUpload, RestsInLocalModesAndThenGoesOn) {
  startBackend();
  const auto file = home.path() / "TarvoLog.txt";
  ASSERT_FALSE(platform::writeFileAtomically(file, "line", false));
  {
    platform::TransferJournal left(home.path() / "Library" / "Transfers", Tarvo::backgroundSessionID());
    const platform::URLRequest request{
        backend.baseURL() + "/v1/demo/uplog", "POST", {{"Content-Type", "multipart/form-data;boundary=boundary"}}};
    for (const int task : {1, 2}) left.putResumed({task, request, file});
    left.putEnded(2, {200, {}, {}});
  }
  backend.faults().answerNext("uplog", 1, 200);
  Tarvo tarvo;
  EXPECT_FALSE(tarvo.handleEventsForBackgroundURLSession("another", [] { FAIL() << "another's handler"; }));
  tarvo.activate(Tarvo::LOCAL_FOREGROUND);
  platform::UIApplication::shared().didFinishLaunching();
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  tarvo.serviceConnect();
  int finished = 0;
  const std::function<void()> told = [&] { ++finished; };
  for (const auto& handler : {told, {}, told})
    EXPECT_TRUE(tarvo.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), handler));
  waitUntilIdle();
  EXPECT_EQ(finished, 2);
  EXPECT_EQ(diary.count("didCompleteWithError [net] statusCode:200"), 0u);
  if (GetParam()) {
    Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
    tarvo.serviceConnect();
  } else {
    tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  }
  waitUntilIdle();
  EXPECT_EQ(diary.count("didCompleteWithError [net] statusCode:200"), 2u) << "one of them of what had ended";
}

}  // namespace
}  // namespace tarvo
