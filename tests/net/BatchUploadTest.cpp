#include <future>

#include "ClientTest.h"

namespace tarvo::test {
namespace {

struct BatchUpload : ClientTest {
  BatchUpload() {
    identify();
    settings.setActivateStatus(12);
  }
};

const char* const kNewCounters = R"({"success":true,"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})";
const char* const kDownloads =
    "GET pasttrips?first_pasttrip_id=0&last_pasttrip_id=7, GET pois, GET predictions, POST positions";
const char* const kNothingElse = "POST positions";

TEST_F(BatchUpload, MarksOrFreesAndDownloadsAsTheAnswerSays) {
  struct Case {
    int status;
    const char* body;
    std::int64_t mode;
    bool marked;
    const char* requests;
    std::int64_t poiVersionAfter;
  };
  const Case cases[] = {
      {200, kNewCounters, 12, true, kDownloads, 3},
      {200, kNewCounters, 8, true, kNothingElse, 0},
      {201, kNewCounters, 12, false, kNothingElse, 0},
      {500, kNewCounters, 12, false, kNothingElse, 0},
      {200, "", 12, true, kNothingElse, 0},
      {200, "{", 12, true, kNothingElse, 0},
      {200, "[1]", 12, true, kNothingElse, 0},
      {200, "null", 12, true, kNothingElse, 0},
      {200, R"({"success":null})", 8, true, kNothingElse, 0},
      {200, R"({"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})", 12, true, kNothingElse, 0},
      {200, R"({"success":false,"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})", 12, true, kNothingElse,
       0},
      {200, R"({"success":true,"last_prediction_id":"5","last_pasttrip_id":null})", 12, true, kNothingElse, 0},
      {200, R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})", 12, true, kNothingElse,
       0},
      {200, R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":-1.0})", 12, true,
       "GET pois, POST positions", -1}};
  LogDiary& log = LogDiary::installed();
  for (const Case& each : cases) {
    SCOPED_TRACE(platform::concat(each.status, " in mode ", each.mode, ": ", each.body));
    settings.setActivateStatus(each.mode);
    settings.setLastTripID(0);
    defaults.set("poi_version", 0);
    NetworkManager::setCANAL_LOCK(true);
    log.clear();
    backend.answer("positions", {each.status, each.body});
    sendBatch();
    EXPECT_EQ(log.count("engine: mark 0-9"), each.marked ? 1u : 0u);
    EXPECT_EQ(NetworkManager::CANAL_LOCK(), each.marked);
    EXPECT_EQ(backend.takeTargets(), each.requests);
    EXPECT_EQ(defaults.integer("poi_version"), each.poiVersionAfter);
  }
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

TEST_F(BatchUpload, AcknowledgesWithoutAnyResponseAndTellsTheErrorLast) {
  backend.stop();
  client();
  LogDiary& log = LogDiary::installed();
  sendBatch();
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], " NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : 200");
  EXPECT_EQ(lines[1], "NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] Data:nil");
  EXPECT_EQ(lines[2], "engine: mark 0-9");
  EXPECT_EQ(lines[3].find("NetworkManager:sendDataInBatchToRemoteWebServer :[error] :Optional(\""), 0u);
}

TEST_F(BatchUpload, GoesByTheStatusThatArrivedBeforeTheTransferBroke) {
  backend.answer("positions", {500, "", {}, /*broken=*/true});
  NetworkManager::setCANAL_LOCK(true);
  LogDiary& log = LogDiary::installed();
  sendBatch();
  expectInOrder({"sendDataInBatchToRemoteWebServer : httpstatus : 500 :réponse = <NSHTTPURLResponse>",
                 "sendDataInBatchToRemoteWebServer :[error] :Optional("});
  EXPECT_EQ(log.count("engine: mark"), 0u);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
}

TEST_F(BatchUpload, ComparesThePoiVersionAsItWasWhenTheBatchLeft) {
  const std::string answer = R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":5})";
  defaults.set("poi_version", 5);
  backend.answer("positions", {200, answer, [this] { defaults.set("poi_version", 0); }});
  sendBatch();
  EXPECT_EQ(backend.takeTargets(), kNothingElse);
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

TEST_F(BatchUpload, StopsTheProcessOnWrongTypes) {
  const std::pair<const char*, const char*> cases[] = {
      {R"({"success":null})", "\"success\" is no Boolean"},
      {R"({"success":1})", "\"success\" is no Boolean"},
      {R"({"success":true,"last_prediction_id":"5","last_pasttrip_id":7,"last_poi_id":3})",
       "prediction_id\" is no int"},
      {R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":7.5,"last_poi_id":3})", "pasttrip_id\" is no int"},
      {R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":true})", "poi_id\" is no int"}};
  for (const auto& [body, message] : cases) {
    backend.answer("positions", {200, body});
    EXPECT_DEATH(sendBatch(), message) << body;
  }
}

}  // namespace
}  // namespace tarvo::test
