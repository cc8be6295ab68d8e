#include "ClientTest.h"
#include "net/BackendAddress.h"
#include "net/Messages.h"

namespace tarvo {

EngineLink& EngineLink::current() { return *installed(); }

}  // namespace tarvo

namespace tarvo::test {
namespace {

struct Requests : ClientTest {
  /// The operation leads to one request, which is this one.
  template <class... Call>
  void sends(const std::string& line, const std::string& body, const Call&... operation) {
    call(operation...);
    EXPECT_EQ(backend.take(),
              std::vector{platform::concat(
                  line, " HTTP/1.1\r\nHost: ", backend.host(), "\r\nAuthorization: Basic ",
                  line.ends_with("/users") ? "a2V5OmFwaXNlY3JldA==" : "dXNlci0xOnMzY3JldA==",
                  "\r\nContent-Type: application/json\r\nAccept: application/json\r\n",
                  body.empty() ? "" : platform::concat("Content-Length: ", body.size(), "\r\n"), "\r\n", body)});
  }
};

TEST_F(Requests, CarryUrlMethodCredentialsAndEachHeaderOnce) {
  identify();
  settings.tarvoapiKey.set("key");
  settings.apiKeySecret.set("apisecret");
  settings.bundleID.set("org.host");
  settings.deviceToken.set("t0k");
  settings.lastTripID.set(42);
  client().setEnvir("dev");
  using N = NetworkManager;
  const std::string get = "GET /api/v1/acme/", post = "POST /api/v1/acme/",
                    app = R"({"app_id":"org.host","envir":"dev",)";
  sends(post + "users", "{u}", &N::sendUserToRemoteWebServer, "{u}");
  sends(post + "positions", "[p]", &N::sendDataInBatchToRemoteWebServer, "[p]", "0", "9");
  sends(get + "predictions", "", &N::getNextTrip);
  sends(get + "pasttrips?first_pasttrip_id=0&last_pasttrip_id=42", "", &N::getLocationHistoryEXTRAPOLATED);
  sends(get + "pois", "", &N::getPOI);
  sends(post + "tokens", R"({"app_id":"","envir":"dev","token":"t0k","tokenusage":"apns"})",
        &N::sendTokenremoteWebServer);
  sends(get + "userconf?uuid=user-1", "", &N::userConfigremoteWebServer);
  sends(post + "subscriptions/register", app + R"("notification":"n","subscription":"s"})", &N::subscriptionRegiter,
        "s", "n");
  sends(post + "subscriptions/unregister", app + R"("subscription":"s"})", &N::subscriptionUnRegister, "s");
  sends(post + "tags/set", app + R"("name":"a","value":"b"})", &N::setTags, "a", "b");
  sends(post + "tags/unset", app + R"("name":"a"})", &N::unsetTags, "a");
  sends(get + "resetbackend", "", &N::resetBackend);
  sends(get + "resetgeoprofile", "", &N::resetGeoProfile);
  EXPECT_EQ(buildRequest("http://h/v1/", "c", "GET", "pois", {}, {}).networkServiceType, 3);
}

TEST_F(Requests, AreLeftOutBeforeTheRegistrationOrStopTheProcess) {
  settings.deviceToken.set("t0k");
  for (const char* name : {"s", "u"}) NetworkManager::setSUBSCRIPTION_LIST(name, "n");
  NetworkManager::addUNSUBSCRIPTION_LIST("u");
  LogDiary& log = LogDiary::installed();
  for (const bool withUUID : {false, true}) {
    if (withUUID) settings.userUUID.set("user-1");
    log.clear();
    client().sendTokenremoteWebServer();
    client().userConfigremoteWebServer();
    client().subscriptionRegiter("s", "n");
    client().subscriptionUnRegister("u");
    client().setTags("a", "b");
    client().unsetTags("a");
    client().resetBackend();
    client().resetGeoProfile();
    client().sendLogToRemoteWebServer();
    finish();
    EXPECT_EQ(log.count("no user, not sent"), withUUID ? 9u : 8u);
    EXPECT_EQ(log.count("NetworkManager:sendTokenremoteWebServer [loc] user:nil mainThread:true"), withUUID ? 0u : 1u);
  }
  EXPECT_EQ(backend.takeTargets(), "");
  EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST(), (std::map<std::string, std::string>{{"s", "n"}}))
      << "what is to be unregistered is no longer to be registered";
  EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().count("u"), 1u);
  EXPECT_DEATH(client().getPOI(), "without user UUID or secret");
}

TEST_F(Requests, AreAnsweredAfterTheirClientIsGone) {
  identify();
  backend.answer("positions", {200, "", [this] { dropClient(); }});
  LogDiary& log = LogDiary::installed();
  sendBatch();
  EXPECT_EQ(log.count("engine: mark 0-9"), 1u);
}

TEST_F(Requests, ReadTheSecretAgainWithEachClient) {
  settings.userSecret.set("in memory alone");
  client();
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), std::nullopt);
}

TEST_F(Requests, StopTheProcessOnAnswersOfAnotherType) {
  identify();
  settings.activateStatus.set(12);
  settings.lastTripID.set(3);
  const auto registration = [this] { call(&NetworkManager::sendUserToRemoteWebServer, "{}"); };
  const auto batch = [this] { sendBatch(); };
  const auto trips = [this] { call(&NetworkManager::getLocationHistoryEXTRAPOLATED); };
  const struct {
    const char *path, *answer, *message;
    std::function<void()> operation;
  } cases[] = {
      {"users", R"(true,"results":[{"uuid":7,"creation_date":"d","secretkey":"k"}])", "uuid. is no text", registration},
      {"positions", "null", "success. is no Boolean", batch},
      {"positions", R"(true,"last_prediction_id":"5","last_pasttrip_id":7,"last_poi_id":3)", "prediction_id. is",
       batch},
      {"positions", R"(true,"last_prediction_id":0,"last_pasttrip_id":7.5,"last_poi_id":3)", "trip_id. is no", batch},
      {"positions", R"(true,"last_prediction_id":0,"last_pasttrip_id":3,"last_poi_id":true)", "poi_id. is no", batch},
      {"predictions",
       R"(true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":true,"destination_lon":2.5,)"
       R"("destination_lat":48,"route":{},"destination_json":{},"start_name":"","arrival_name":"","duration":1)",
       "probability. is no number", [this] { call(&NetworkManager::getNextTrip); }},
      {"pasttrips", R"(true,"trips":null)", "trips. is no array", trips},
      {"pasttrips", R"(true,"trips":[1])", "trips. is no object", trips}};
  for (const auto& [path, answer, message, operation] : cases) {
    backend.answer(path, {200, platform::concat(R"({"success":)", answer, "}")});
    EXPECT_DEATH(operation(), message) << answer;
  }
}

TEST(BackendAddress, IsAnHttpUrlThatKeepsCredentialsOffTheWire) {
  for (const char* usable :
       {"https://backend.example/api", "http://127.0.0.1:8080/api", "http://[::1]:8080/api", "http://localhost/api"})
    EXPECT_FALSE(refusalOfBackendAddress(usable, false)) << usable;
  EXPECT_FALSE(refusalOfBackendAddress("http://backend.example/api", true));
  for (const char* none : {"http://backend.example/api", "http://127.0.0.1.evil.example/"})
    EXPECT_TRUE(refusalOfBackendAddress(none, false)) << none;
  for (const char* none : {"https://user:pw@backend.example", "https://backend.example/api?x=1",
                           "ftp://backend.example", "backend.example/api", "", "https://bad host/"})
    EXPECT_TRUE(refusalOfBackendAddress(none, true)) << none;
}

}  // namespace
}  // namespace tarvo::test
