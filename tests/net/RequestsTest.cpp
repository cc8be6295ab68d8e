#include "ClientTest.h"
#include "platform/urlsession/URLRequest.h"

namespace tarvo {

EngineLink& EngineLink::current() { return *installed(); }

}  // namespace tarvo

namespace tarvo::test {
namespace {

struct Requests : ClientTest {
  /// The operation leads to one request, which is this one.
  template <class... Call>
  void sends(const std::string& line, const std::string& body, const Call&... operation) {
    SCOPED_TRACE(line);
    call(operation...);
    const auto seen = backend.take();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method + " " + seen[0].target, line);
    EXPECT_EQ(seen[0].body, body);
    const bool registers = line.ends_with("/users");
    for (const auto& [name, value] :
         {std::pair("Content-Type", "application/json"),
          {"Accept", "application/json"},
          {"Authorization", registers ? "Basic a2V5OmFwaXNlY3JldA==" : "Basic dXNlci0xOnMzY3JldA=="}}) {
      EXPECT_EQ(seen[0].get_header_value_count(name), 1u) << name;
      EXPECT_EQ(seen[0].get_header_value(name), value) << name;
    }
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
  EXPECT_EQ(client().request("GET", "pois", std::nullopt).networkServiceType, 3);
}

TEST_F(Requests, StopTheProcessWithoutAnIdentityUnlessTheyRegister) {
  settings.userUUID.set("user-1");
  EXPECT_EQ(client().request("POST", "users", "{}").httpMethod, "POST");
  EXPECT_DEATH(client().request("GET", "pois", std::nullopt), "without user UUID or secret");
}

TEST_F(Requests, AreLeftOutBeforeTheRegistrationAndPendingListsStay) {
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
}

TEST_F(Requests, AreAnsweredAfterTheirClientIsGone) {
  identify();
  backend.answer("positions", {200, "", [this] { dropClient(); }});
  LogDiary& log = LogDiary::installed();
  sendBatch();
  EXPECT_EQ(log.count("engine: mark 0-9"), 1u);
}

TEST_F(Requests, ReadTheSecretAgainWithEachClient) {
  defaults.set("uuid_secret_key", "stored");
  client();
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), "stored");
  defaults.remove("uuid_secret_key");
  NetworkManager second;
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), std::nullopt);
}

}  // namespace
}  // namespace tarvo::test
