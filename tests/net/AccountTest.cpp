#include "ClientTest.h"

namespace tarvo::test {
namespace {

struct Account : ClientTest {
  void registerUser(const std::string& result) {
    backend.answer("users", {200, R"({"success":true,"results":[)" + result + "]}"});
    call(&NetworkManager::sendUserToRemoteWebServer, "{}");
  }
};

TEST_F(Account, RegistersOnceAndTakesOnlyTheSecretFromLaterAnswers) {
  LogDiary& log = LogDiary::installed();
  for (const char* token : {"", "t0k"}) {
    engine.received = false;
    settings.tokenSent.set(false);
    settings.deviceToken.set(token);
    registerUser(R"({"uuid":"u-1","creation_date":"now","secretkey":42})");
    EXPECT_EQ(backend.takeTargets(), *token == '\0' ? "POST users" : "POST tokens, POST users");
    EXPECT_TRUE(settings.tokenSent.get()) << "even when there is none";
  }
  expectInOrder({"secretkey : 42", " NetworkManager:sendUserToRemoteWebServer [net] uuid:u-1 mainThread:false",
                 "engine: user u-1 now", "engine: send", "engine: received true", "secretkey : 42",
                 "NetworkManager:sendTokenremoteWebServer [net] mainThread:false request:http://"});
  EXPECT_EQ(defaults.string("uuid_secret_key"), "42");

  log.clear();
  registerUser(R"({"uuid":7,"creation_date":null,"secretkey":"new"})");
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), "new");
  EXPECT_EQ(log.count("engine: "), 0u);
  EXPECT_EQ(backend.takeTargets(), "POST users");
}

TEST_F(Account, TakesNoUserFromAnAnswerOfAnotherShape) {
  LogDiary& log = LogDiary::installed();
  for (const char* result : {"", "7", R"({"uuid":"u","creation_date":"d"})", R"({"uuid":"u","secretkey":"k"})"}) {
    registerUser(result);
    EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), std::nullopt) << result;
  }
  for (const char* body :
       {"", "7", "{", R"({"results":[]})", R"({"success":false})", R"({"success":true,"results":{}})"}) {
    backend.answer("users", {403, body});
    call(&NetworkManager::sendUserToRemoteWebServer, "{}");
  }
  registerUser(R"({"uuid":"../u","creation_date":"d","secretkey":"k"})");
  EXPECT_EQ(log.count("uuid refused"), 1u);
  EXPECT_EQ(log.count(" NetworkManager:sendUserToRemoteWebServer : httpstatus : 403 réponse = <NSHTTP"), 6u);
  EXPECT_EQ(log.count("engine: "), 0u);
}

TEST_F(Account, StoresTheConfiguredLogLevelInTheDefaultsAlone) {
  identify();
  LogDiary& log = LogDiary::installed();
  const std::pair<const char*, std::int64_t> cases[] = {{R"({"success":false,"results":[{"log_level":3}]})", 0},
                                                        {R"({"success":true,"results":[]})", 0},
                                                        {R"({"success":true,"results":[{"log_level":true}]})", 0},
                                                        {R"({"success":true,"results":[{"log_level":10}]})", 10}};
  for (const auto& [body, level] : cases) {
    backend.answer("userconf", {200, body});
    call(&NetworkManager::userConfigremoteWebServer);
    EXPECT_EQ(defaults.integer("tarvologlevel"), level) << body;
  }
  EXPECT_EQ(log.count("NetworkManager:userConfigremoteWebServer :logLeve = 10"), 1u);
}

TEST_F(Account, TakesASubscriptionFromItsListOnceTheBackendHasAcceptedIt) {
  identify();
  NetworkManager::setSUBSCRIPTION_LIST("s", "n");
  NetworkManager::setSUBSCRIPTION_LIST("u", "n");
  NetworkManager::addUNSUBSCRIPTION_LIST("u");
  for (const int status : {204, 500, 200}) {
    backend.answer("subscriptions/register", {status, ""});
    backend.answer("subscriptions/unregister", {status, ""});
    client().subscriptionRegiter("s", "n");
    client().subscriptionUnRegister("u");
    EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST().count("u"), 0u);
    finish();
    EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST().count("s"), status == 200 ? 0u : 1u) << status;
    EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().count("u"), status == 200 ? 0u : 1u) << status;
  }
}

TEST_F(Account, TellsWhatBecomesOfTagsTokensAndResets) {
  identify();
  const auto expectOnce = [this](const std::string& value, std::initializer_list<const char*> texts) {
    LogDiary::installed().clear();
    settings.deviceToken.set(value);
    call(&NetworkManager::setTags, "a", value);
    call(&NetworkManager::unsetTags, "a");
    call(&NetworkManager::sendTokenremoteWebServer);
    call(&NetworkManager::resetBackend);
    call(&NetworkManager::resetGeoProfile);
    for (const char* text : texts) EXPECT_EQ(LogDiary::installed().count(text), 1u) << text;
  };
  expectOnce("accepted", {"NetworkManager:setTags :[success] ", "NetworkManager:resetBackend : httpStatus 200"});
  for (const char* path : {"tags/set", "tags/unset", "tokens", "resetgeoprofile"}) backend.answer(path, {503, ""});
  expectOnce("refused", {" NetworkManager:setTags : httpstatus : 503", " NetworkManager:unsetTags : httpstatus : 503",
                         " NetworkManager:unsetTags :réponse = <NSHTTPURLResponse>",
                         " NetworkManager:sendTokenremoteWebServer : httpstatus : 503",
                         " NetworkManager:sendTokenremoteWebServer :réponse = <",
                         "NetworkManager:resetGeoProfile : httpStatus 503"});
  backend.stop();
  expectOnce("unheard", {"NetworkManager:setTags :[error] : Could", "NetworkManager:resetBackend :[error] :Optional("});
  call(&NetworkManager::userConfigremoteWebServer);
  expectInOrder({"NetworkManager:sendDataInBatchToRemoteWebServer :[error] :Optional("});
  expectOnce("no text: \xff",
             {"NetworkManager:subscriptionRegiter [loc] JSON conversion problem mainThread:true",
              "NetworkManager:sendTokenremoteWebServer [loc] JSON conversion problem mainThread:true"});
  const std::string tooLong(std::size_t{65} << 20, 'x'),
      error = "Unresolved error Error Domain=NSCocoaErrorDomain Code=3851";
  expectOnce(tooLong, {("NetworkManager:subscriptionRegiter " + error).c_str()});
  EXPECT_EQ(LogDiary::installed().count(error), 2u) << "of the token too";
}

}  // namespace
}  // namespace tarvo::test
