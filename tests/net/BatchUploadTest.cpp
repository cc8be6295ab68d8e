#include <future>

#include "ClientTest.h"

namespace tarvo::test {
namespace {

struct BatchUpload : ClientTest {
  BatchUpload() {
    identify();
    settings.activateStatus.set(12);
  }
};

const char* const kNewCounters = R"({"success":true,"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})";
const char* const kDownloads =
    "GET pasttrips?first_pasttrip_id=0&last_pasttrip_id=7, GET pois, GET predictions, POST positions";

TEST_F(BatchUpload, MarksOrFreesAndDownloadsAsTheAnswerSays) {
  LogDiary& log = LogDiary::installed();
  const auto outcome = [&](const Backend::Answer& answer, std::int64_t mode = 12) {
    settings.activateStatus.set(mode);
    settings.lastTripID.set(0);
    defaults.set("poi_version", 0);
    NetworkManager::setCANAL_LOCK(true);
    log.clear();
    backend.answer("positions", answer);
    sendBatch();
    EXPECT_EQ(log.count("engine: mark 0-9"), NetworkManager::CANAL_LOCK() ? 1u : 0u) << answer.body;
    return platform::concat(NetworkManager::CANAL_LOCK() ? "marked, " : "freed, ", backend.takeTargets(), ", places ",
                            defaults.integer("poi_version"));
  };
  EXPECT_EQ(outcome({200, kNewCounters}), platform::concat("marked, ", kDownloads, ", places 3"));
  for (const char* body : {kNewCounters, R"({"success":null})"})
    EXPECT_EQ(outcome({200, body}, 8), "marked, POST positions, places 0") << body;
  for (const char* body : {"", "{", "[1]", "null", R"({"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})",
                           R"({"success":false,"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})",
                           R"({"success":true,"last_prediction_id":"5","last_pasttrip_id":null})",
                           R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})"})
    EXPECT_EQ(outcome({200, body}), "marked, POST positions, places 0") << body;
  EXPECT_EQ(outcome({200, R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":-1.0})"}),
            "marked, GET pois, POST positions, places -1");
  for (const int status : {201, 500})
    EXPECT_EQ(outcome({status, kNewCounters}), "freed, POST positions, places 0") << status;
  // The status that arrived before the transfer broke decides.
  EXPECT_EQ(outcome({500, "lost", {}, /*broken=*/true}), "freed, POST positions, places 0");
  expectInOrder({"sendDataInBatchToRemoteWebServer : httpstatus : 500 :réponse = <NSHTTPURLResponse>",
                 "sendDataInBatchToRemoteWebServer :[error] :Optional("});
}

TEST_F(BatchUpload, DownloadsThenReplaysSubscriptionsThenMarks) {
  NetworkManager::setSUBSCRIPTION_LIST("both", "n");
  NetworkManager::setSUBSCRIPTION_LIST("s", "n");
  NetworkManager::addUNSUBSCRIPTION_LIST("both");
  backend.answer("positions", {200, kNewCounters});
  backend.answer("subscriptions/unregister", {500, ""});
  LogDiary::installed();
  sendBatch();
  expectInOrder({" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : 200",
                 "NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] Data:Optional(76 bytes)",
                 "[net] [succes] jsonData:[\"last_pasttrip_id\": 7, ",
                 "[succes] last_prediction_id:5 , last_trip_id:7, last_poi_id3", "NetworkManager:getNextTrip :[called]",
                 "EXTRAPOLATED [api] pasttrips?first_pasttrip_id=0&last_pasttrip_id=7 ", "getPOI : called",
                 "[SUBSCRIPTION_LIST] : [\"both\": \"n\", \"s\": \"n\"] ---",
                 "[SUBSCRIPTION_LIST] : [\"both\": \"n\", \"s\": \"n\"] ---", "[UNSUBSCRIPTION_LIST] : [\"both\"]---- ",
                 "engine: mark 0-9", " NetworkManager:subscriptionRegiter : httpstatus : 500",
                 " NetworkManager:subscriptionRegiter :réponse = <NSHTTPURLResponse>"});
  EXPECT_TRUE(NetworkManager::SUBSCRIPTION_LIST().empty());
  EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().size(), 1u);
}

TEST_F(BatchUpload, ComparesThePoiVersionAsItWasWhenTheBatchLeft) {
  const std::string answer = R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":5})";
  defaults.set("poi_version", 5);
  backend.answer("positions", {200, answer, [this] { defaults.set("poi_version", 0); }});
  sendBatch();
  EXPECT_EQ(backend.takeTargets(), "POST positions");
  sendBatch();
  EXPECT_EQ(backend.takeTargets(), "GET pois, POST positions");
  EXPECT_EQ(defaults.integer("poi_version"), 5);
}

TEST_F(BatchUpload, WaitsForTwoCopiesAtMostAndIgnoresOlderOnes) {
  LogDiary& log = LogDiary::installed();
  std::promise<void> release;
  std::atomic<int> arrived{0};
  backend.answer("positions", {200, "", [&, released = release.get_future().share()] {
                                 ++arrived;
                                 arrived.notify_all();
                                 released.wait();
                               }});
  for (int i = 0; i < 4; ++i) {
    client().sendDataInBatchToRemoteWebServer("[]", platform::concat(i), "9");
    for (int seen; (seen = arrived) <= i;) arrived.wait(seen);
  }
  release.set_value();
  finish();
  for (int i = 0; i < 4; ++i) EXPECT_EQ(log.count(platform::concat("engine: mark ", i, "-9")), i < 2 ? 0u : 1u) << i;
}

}  // namespace
}  // namespace tarvo::test
