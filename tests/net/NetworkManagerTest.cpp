#include <future>

#include "ClientTest.h"
#include "net/BackendAddress.h"
#include "net/Messages.h"
#include "records/LatestPrediction.h"

namespace tarvo {

EngineLink& EngineLink::current() { return *installed(); }

}  // namespace tarvo

namespace tarvo::test {
namespace {

constexpr auto kOperations = {&NetworkManager::sendTokenremoteWebServer, &NetworkManager::resetBackend,
                              &NetworkManager::resetGeoProfile, &NetworkManager::userConfigremoteWebServer};

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
  settings.userUUID.set("user-1");
  EXPECT_DEATH(client().getPOI(), "without user UUID or secret");
  settings.userUUID.set(std::nullopt);
  settings.deviceToken.set("t0k");
  NetworkManager::setSUBSCRIPTION_LIST({{"s", "n"}, {"u", "n"}});
  NetworkManager::setUNSUBSCRIPTION_LIST({"u"});
  LogDiary& log = LogDiary::installed();
  for (const bool withUUID : {false, true}) {
    if (withUUID) settings.userUUID.set("user-1");
    log.clear();
    for (const auto operation : kOperations) call(operation);
    client().sendLogToRemoteWebServer();
    client().subscriptionRegiter("s", "n");
    client().subscriptionUnRegister("u");
    client().setTags("a", "b");
    client().unsetTags("a");
    finish();
    EXPECT_EQ(log.count("no user, not sent"), withUUID ? 9u : 8u);
    EXPECT_EQ(log.count("NetworkManager:sendTokenremoteWebServer [loc] user:nil mainThread:true"), withUUID ? 0u : 1u);
  }
  EXPECT_EQ(backend.takeTargets(), "");
  EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST(), (std::map<std::string, std::string>{{"s", "n"}}))
      << "what is to be unregistered is no longer to be registered";
  EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().count("u"), 1u);
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

TEST_F(Account, TakesNoUserFromARefusalOrOfAnIdentifierThatLeadsElsewhere) {
  LogDiary& log = LogDiary::installed();
  backend.answer("users", {403, R"({"success":false})"});
  call(&NetworkManager::sendUserToRemoteWebServer, "{}");
  EXPECT_EQ(log.count(" NetworkManager:sendUserToRemoteWebServer : httpstatus : 403 réponse = <NSHTTP"), 1u);
  registerUser(R"({"uuid":"../u","creation_date":"d","secretkey":"k"})");
  EXPECT_EQ(log.count("uuid refused"), 1u);
  EXPECT_EQ(log.count("engine: "), 0u);
}

TEST_F(Account, TellsWhatBecomesOfTagsTokensAndResets) {
  identify();
  const std::string set = "NetworkManager:setTags :", reset = "resetBackend :",
                    token = "NetworkManager:sendTokenremoteWebServer ",
                    noText = "[loc] JSON conversion problem mainThread:true";
  const struct {
    int status;  ///< 0: the backend is gone
    std::string value;
    std::vector<std::string> texts;
  } cases[] = {{200, "accepted", {set + "[success] ", reset + " httpStatus 200"}},
               {503,
                "refused",
                {set + " httpstatus : 503", "NetworkManager:unsetTags : httpstatus : 503",
                 " NetworkManager:unsetTags :réponse = <NSHTTPURLResponse>", token + ": httpstatus : 503",
                 token + ":réponse = <", "NetworkManager:resetGeoProfile : httpStatus 503"}},
               {0, "unheard", {set + "[error] : Could", reset + "[error] :Optional("}},
               {0, "no text: \xff", {"NetworkManager:subscriptionRegiter " + noText, token + noText}}};
  for (const auto& [status, value, texts] : cases) {
    for (const char* path : {"tags/set", "tags/unset", "tokens", "resetgeoprofile"}) backend.answer(path, {status, ""});
    if (status == 0) backend.stop();
    LogDiary::installed().clear();
    settings.deviceToken.set(value);
    call(&NetworkManager::setTags, "a", value);
    call(&NetworkManager::unsetTags, "a");
    for (const auto operation : kOperations) call(operation);
    for (const auto& text : texts) EXPECT_EQ(LogDiary::installed().count(text), 1u) << text;
    if (status == 0) expectInOrder({"NetworkManager:sendDataInBatchToRemoteWebServer :[error] :Optional("});
  }
}

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
  EXPECT_EQ(outcome({200, "", [this] { dropClient(); }}), "marked, POST positions, places 0");
  EXPECT_EQ(outcome({200, kNewCounters}, 8), "marked, POST positions, places 0");
  for (const char* body : {"{", R"({"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})",
                           R"({"success":false,"last_prediction_id":5,"last_pasttrip_id":7,"last_poi_id":3})",
                           R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})"})
    EXPECT_EQ(outcome({200, body}), "marked, POST positions, places 0") << body;
  EXPECT_EQ(outcome({200, R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":-1.0})"}),
            "marked, GET pois, POST positions, places -1");
  // The version as it was when the batch left counts.
  EXPECT_EQ(outcome({200, R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":5})",
                     [this] { defaults.set("poi_version", 5); }}),
            "marked, GET pois, POST positions, places 5");
  // The status that arrived before the transfer broke decides.
  EXPECT_EQ(outcome({500, "lost", {}, /*broken=*/true}), "freed, POST positions, places 0");
  expectInOrder({"sendDataInBatchToRemoteWebServer : httpstatus : 500 :réponse = <NSHTTPURLResponse>",
                 "sendDataInBatchToRemoteWebServer :[error] :Optional("});
}

TEST_F(BatchUpload, IsConfirmedOnlyByACompleteAnswerOfTheAddressAskedThatSaysSo) {
  const std::string yes = R"({"success":true})", there = "Location: there\r\n", later = "Retry-After: 9\r\n";
  const std::string unanswered = "mark 0-9 without an answer";
  backend.answer("there", {200, yes});
  using Error = DeliveryError;
  const struct {
    Backend::Answer answer;
    std::string byDefault;
    Error error = Error::none;  ///< when confirmed; by default too, if it does not mark
  } cases[] = {{{200, yes}, "mark 0-9"},
               {{200, ""}, "mark 0-9", Error::rejected},
               {{200, R"({"success":false})"}, "mark 0-9", Error::rejected},
               {{200, yes, {}, /*broken=*/true}, unanswered, Error::broken},
               {{302, yes, {}, false, there}, "mark 0-9", Error::redirected},
               {{201, yes}, "", Error::refused},
               {{403, yes, {}, false, later}, "", Error::unauthorized},
               {{503, yes, {}, false, later}, "", Error::throttled},
               {{500, yes, {}, /*broken=*/true}, "", Error::refused},
               {{0, ""}, unanswered, Error::unreachable}};
  for (const auto& [answer, byDefault, error] : cases) {
    if (answer.status == 0) backend.stop();
    backend.answer("positions", answer);
    for (const auto& [confirmed, mode] : {std::pair(false, 8), {false, 12}, {true, 8}, {true, 12}}) {
      settings.deliveryOptions.set({.confirmed = confirmed, .dropsProtocolBreaks = true});
      settings.activateStatus.set(mode);
      LogDiary::installed().clear();
      NetworkManager::setCANAL_LOCK(true);
      sendBatch();
      const bool marks = confirmed ? error == Error::none : !byDefault.empty();
      const std::string told = marks ? byDefault : platform::concat("failed ", static_cast<int>(error));
      EXPECT_EQ(LogDiary::installed().count("engine: " + told), 1u)
          << answer.status << answer.body << confirmed << mode;
      EXPECT_EQ(NetworkManager::CANAL_LOCK(), marks) << "of a batch that is marked the engine frees it";
    }
  }
}

TEST_F(BatchUpload, DownloadsThenReplaysSubscriptionsUntilAcceptedThenMarks) {
  NetworkManager::setSUBSCRIPTION_LIST("both", "n");
  NetworkManager::setSUBSCRIPTION_LIST("s", "n");
  NetworkManager::addUNSUBSCRIPTION_LIST("both");
  backend.answer("positions", {200, kNewCounters});
  LogDiary& log = LogDiary::installed();
  for (const auto& [registering, unregistering] : {std::pair(500, 204), {200, 500}, {204, 200}}) {
    backend.answer("subscriptions/register", {registering, ""});
    backend.answer("subscriptions/unregister", {unregistering, ""});
    const bool first = log.count("engine: mark") == 0;
    sendBatch();
    if (first) {
      expectInOrder(
          {" NetworkManager:sendDataInBatchToRemoteWebServer : httpstatus : 200",
           "NetworkManager:sendDataInBatchToRemoteWebServer [net] [succes] Data:Optional(76 bytes)",
           "[net] [succes] jsonData:[\"last_pasttrip_id\": 7, ",
           "[succes] last_prediction_id:5 , last_trip_id:7, last_poi_id3", "NetworkManager:getNextTrip :[called]",
           "EXTRAPOLATED [api] pasttrips?first_pasttrip_id=0&last_pasttrip_id=7 ", "getPOI : called",
           "[SUBSCRIPTION_LIST] : [\"both\": \"n\", \"s\": \"n\"] ---", "[UNSUBSCRIPTION_LIST] : [\"both\"]---- ",
           "engine: mark 0-9", " NetworkManager:subscriptionRegiter : httpstatus : 500",
           " NetworkManager:subscriptionRegiter :réponse = <NSHTTPURLResponse>"});
    }
    EXPECT_EQ(NetworkManager::SUBSCRIPTION_LIST().size(), registering == 500 ? 1u : 0u);
    EXPECT_EQ(NetworkManager::UNSUBSCRIPTION_LIST().size(), unregistering == 200 ? 0u : 1u);
  }
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
  auto post = [&, sent = 0](const std::string& batch, int first) mutable {
    client().sendDataInBatchToRemoteWebServer(batch, platform::concat(first), "9");
    ++sent;
    for (int seen; (seen = arrived) < sent;) arrived.wait(seen);
  };
  post("[]", 0);
  post("[other]", 8);
  for (int first = 1; first < 4; ++first) post("[]", first);
  release.set_value();
  finish();
  for (const int first : {0, 1, 2, 3, 8})
    EXPECT_EQ(log.count(platform::concat("engine: mark ", first, "-9")), first < 2 ? 0u : 1u) << first;
}

struct Downloads : ClientTest {
  Downloads() { identify(); }
};

TEST_F(Downloads, AskForTripsOnlyWhenTheNewestIsNotTheAnnouncedOne) {
  const std::tuple<std::optional<std::int64_t>, std::int64_t, const char*> cases[] = {
      {7, 7, ""},
      {{}, 42, "GET pasttrips?first_pasttrip_id=0&last_pasttrip_id=42"},
      {7, 9, "GET pasttrips?first_pasttrip_id=7&last_pasttrip_id=9"},
      {9, 7, "GET pasttrips?first_pasttrip_id=9&last_pasttrip_id=7"}};
  for (const auto& [newest, announced, request] : cases) {
    engine.newest = {newest.has_value(), newest};
    settings.lastTripID.set(announced);
    call(&NetworkManager::getLocationHistoryEXTRAPOLATED);
    EXPECT_EQ(backend.takeTargets(), request) << announced;
  }
  engine.newest = {true, std::nullopt};
  EXPECT_DEATH(client().getLocationHistoryEXTRAPOLATED(), "no identifier");
  settings.userUUID.set(std::nullopt);
  client().getLocationHistoryEXTRAPOLATED();
  EXPECT_TRUE(platform::WorkInFlight::waitUntilIdle(platform::Seconds(0)));
}

TEST_F(Downloads, HandWhatCameOverWhateverTheStatusAndForgetTheVersionOfPlacesOnFailure) {
  const std::string two = R"({"success":true,"pois":[{"id":1},{"id":2}]})";
  const std::tuple<Backend::Answer, std::size_t, std::int64_t> cases[] = {
      {{200, two}, 1, 5},
      {{500, two}, 1, 0},
      {{200, "lost", {}, /*broken=*/true}, 0, 0},
      {{200, "nonsense"}, 0, 5},
      {{200, R"({"success":false,"pois":[]})"}, 0, 5}};
  LogDiary& log = LogDiary::installed();
  for (const auto& [answer, handedOver, versionAfter] : cases) {
    log.clear();
    defaults.set("poi_version", 5);
    backend.answer("pois", answer);
    call(&NetworkManager::getPOI);
    EXPECT_EQ(log.count("engine: pois 2"), handedOver) << answer.status << answer.body;
    EXPECT_EQ(defaults.integer("poi_version"), versionAfter) << answer.status << answer.body;
  }
}

const char* const kPrediction =
    R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,"destination_lon":2.5,)"
    R"("destination_lat":48,"route":{"r":1},"destination_json":{"d":2},"start_name":"Home","arrival_name":"Work",)"
    R"("duration":12.5)";

TEST_F(Downloads, StoreAPredictionWholeOrNotAtAll) {
  LogDiary& log = LogDiary::installed();
  const std::string lacksOne = std::string(kPrediction).replace(std::string(kPrediction).find("duration"), 8, "other");
  backend.answer("predictions", {200, lacksOne + "}"});
  call(&NetworkManager::getNextTrip);
  EXPECT_EQ(latestPrediction().get().id, 0);
  EXPECT_EQ(log.count("engine: prediction"), 0u);

  backend.answer("predictions", {200, std::string(kPrediction) + "}"});
  call(&NetworkManager::getNextTrip);
  const Trip trip = latestPrediction().get();
  EXPECT_EQ(platform::concat("trip ", trip.id, " from ", trip.startTime, " to ", trip.ArrivalTime, ", ", trip.duration,
                             " min, probability ", trip.probability, ", at ", trip.destination_lat, " ",
                             trip.destination_lon, ", route ", trip.route, ", place ", trip.next_destination),
            R"(trip 8 from s to a, 12.5 min, probability 1, at 48 2.5, route ["r": 1], place ["d": 2])");
  expectInOrder({"getNextTrip [net] [succes] prediction_id:8 startTime s",
                 "[Tarvo.LastPrediction.start_name] : Home [Tarvo.LastPrediction.arrival_name] : Work",
                 "engine: prediction"});
}

}  // namespace
}  // namespace tarvo::test
