#include <tarvo/platform/MainQueue.h>

#include "ClientTest.h"
#include "platform/foundation/FatalError.h"
#include "platform/urlsession/URLRequest.h"

namespace tarvo {

void EngineLink::build() { platform::fatalError("each test has its engine"); }

}  // namespace tarvo

namespace tarvo::test {
namespace {

struct Requests : ClientTest {};

TEST_F(Requests, CarryUrlMethodCredentialsAndEachHeaderOnce) {
  identify();
  settings.setTarvoapiKey("key");
  settings.setApiKeySecret("apisecret");
  settings.setBundleID("org.host");
  settings.setDeviceToken("t0k");
  settings.setLastTripID(42);
  client().setEnvir("dev");
  const char* const user = "Basic dXNlci0xOnMzY3JldA==";
  const char* const apiKey = "Basic a2V5OmFwaXNlY3JldA==";
  using N = NetworkManager;
  struct Case {
    std::function<void(N&)> operation;
    std::string method, target, body;
  };
  const Case cases[] = {
      {[](N& c) { c.sendUserToRemoteWebServer("{u}"); }, "POST", "users", "{u}"},
      {[](N& c) { c.sendDataInBatchToRemoteWebServer("[p]", "0", "9"); }, "POST", "positions", "[p]"},
      {&N::getNextTrip, "GET", "predictions", ""},
      {&N::getLocationHistoryEXTRAPOLATED, "GET", "pasttrips?first_pasttrip_id=0&last_pasttrip_id=42", ""},
      {&N::getPOI, "GET", "pois", ""},
      {&N::sendTokenremoteWebServer, "POST", "tokens",
       R"({"app_id":"","envir":"dev","token":"t0k","tokenusage":"apns"})"},
      {&N::userConfigremoteWebServer, "GET", "userconf?uuid=user-1", ""},
      {[](N& c) { c.subscriptionRegiter("s", "n"); }, "POST", "subscriptions/register",
       R"({"app_id":"org.host","envir":"dev","notification":"n","subscription":"s"})"},
      {[](N& c) { c.subscriptionUnRegister("s"); }, "POST", "subscriptions/unregister",
       R"({"app_id":"org.host","envir":"dev","subscription":"s"})"},
      {[](N& c) { c.setTags("a", "b"); }, "POST", "tags/set",
       R"({"app_id":"org.host","envir":"dev","name":"a","value":"b"})"},
      {[](N& c) { c.unsetTags("a"); }, "POST", "tags/unset", R"({"app_id":"org.host","envir":"dev","name":"a"})"},
      {&N::resetBackend, "GET", "resetbackend", ""},
      {&N::resetGeoProfile, "GET", "resetgeoprofile", ""}};
  for (const Case& each : cases) {
    SCOPED_TRACE(each.target);
    call(each.operation);
    const auto seen = backend.take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method, each.method);
    EXPECT_EQ(seen[0].target, "/api/v1/acme/" + each.target);
    EXPECT_EQ(seen[0].body, each.body);
    for (const auto& [name, value] : {std::pair("Content-Type", "application/json"),
                                      {"Accept", "application/json"},
                                      {"Authorization", each.target == "users" ? apiKey : user}}) {
      EXPECT_EQ(seen[0].get_header_value_count(name), 1u) << name;
      EXPECT_EQ(seen[0].get_header_value(name), value) << name;
    }
  }
  EXPECT_EQ(client().request("GET", "pois", std::nullopt).networkServiceType, 3);
}

TEST_F(Requests, StopTheProcessWithoutAnIdentityUnlessTheyRegister) {
  settings.setUserUUID("user-1");
  EXPECT_EQ(client().request("POST", "users", "{}").httpMethod, "POST");
  EXPECT_DEATH(client().request("GET", "pois", std::nullopt), "without user UUID or secret");
}

TEST_F(Requests, AreLeftOutBeforeTheRegistrationAndPendingListsStay) {
  settings.setDeviceToken("t0k");
  for (const char* name : {"s", "u"}) NetworkManager::setSUBSCRIPTION_LIST(name, "n");
  NetworkManager::addUNSUBSCRIPTION_LIST("u");
  LogDiary& log = LogDiary::installed();
  for (const bool withUUID : {false, true}) {
    if (withUUID) settings.setUserUUID("user-1");
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
}

TEST_F(Requests, AreAnsweredAfterTheirClientIsGone) {
  identify();
  backend.answer("positions", {200, "", [this] { dropClient(); }});
  LogDiary& log = LogDiary::installed();
  sendBatch();
  EXPECT_EQ(log.count("engine: mark 0-9"), 1u);
}

TEST_F(Requests, ReachLoopbackOverAnyNetworkAndNoEmptyName) {
  EXPECT_TRUE(NetworkManager::isWebServerReachable(false, backend.address()));
  EXPECT_TRUE(NetworkManager::isWebServerReachable(true, "localhost"));
  EXPECT_FALSE(NetworkManager::isWebServerReachable(false, ""));
}

TEST_F(Requests, ReadTheSecretAgainWithEachClient) {
  defaults.set("uuid_secret_key", "stored");
  client();
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), "stored");
  defaults.remove("uuid_secret_key");
  NetworkManager second;
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), std::nullopt);
}

TEST_F(Requests, RunTheHandlerOfBackgroundEventsOnceOnTheMainQueue) {
  LogDiary& log = LogDiary::installed();
  int calls = 0;
  client().handleEventsForBackgroundURLSession("org.example.session", [&calls] { ++calls; });
  EXPECT_EQ(calls, 0);
  finish();
  client().handleEventsForBackgroundURLSession("org.example.session", nullptr);
  finish();
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(log.count("urlSessionDidFinishEvents:beforeCompletionHandler [net] session:"), 2u);
  EXPECT_EQ(log.count("urlSessionDidFinishEvents:afterCompletionHandler [net] session:"), 2u);
}

}  // namespace
}  // namespace tarvo::test
