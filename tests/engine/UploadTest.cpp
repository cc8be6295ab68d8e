#include <dlfcn.h>
#include <netdb.h>

#include <atomic>

#include "platform/foundation/Text.h"
#include "support/FaultyDisk.h"
#include "support/WholeSdk.h"

static std::atomic<int> askedForNames{0};

/// Takes the place of the system's for the whole program, libraries included: names of the tests have no address.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                                                          addrinfo** found) {
  static const auto original = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (name == nullptr || !std::string_view(name).ends_with(".test") || (hints->ai_flags & AI_NUMERICHOST) != 0)
    return original(name, service, hints, found);
  ++askedForNames;
  return EAI_NONAME;
}

namespace tarvo {
namespace {

using platform::Seconds;

struct Upload : test::WholeSdk {
  static constexpr const char* kCalled = "sendDataInBatchToRemoteWebServer [loc]=====CALLED======CANAL===";
};

TEST_F(Upload, TakesAFreshDeviceToAnEmptyQueueAndGoesOnWithASecondTarvo) {
  startBackend();
  Tarvo tarvo;
  activate(tarvo, Tarvo::LOCAL_BACKGROUND);
  drive(1);
  EXPECT_TRUE(diary.count(kCalled) == 0 && !NetworkManager::CANAL_LOCK());
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  EXPECT_EQ(diary.count("checkAndRegisterUser [loc] nbUsers:0"), 2u) << "at start-up and by the pass";
  EXPECT_EQ(backend.holdings().users, 0) << "without a secret of the host";
  NetworkManager::setApiKeySecret("secret");
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  const auto secret = NetworkManager::UUID_SECRET_KEY();
  EXPECT_TRUE(secret && secret == platform::UserDefaults::standard().string("uuid_secret_key"));
  drive(2);
  // The pass that found no identity keeps the channel until it is stale.
  EXPECT_EQ(backend.holdings().positions, 0);
  clock->advance(Seconds(180));
  drive(1);
  settle();
  expectEachIndexOnce(4);

  Tarvo second;
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), secret);
  second.activate(Tarvo::BACKEND_BACKGROUND);
  drive(2);
  settle();
  expectEachIndexOnce(6);
  EXPECT_EQ(backend.holdings().users, 1);
  EXPECT_EQ(engine().getUser().at(0).uuid, LocationManager::userUUID());
}

TEST_F(Upload, SendsABacklogInBatchesOfAThousandOnePerAcknowledgement) {
  Tarvo tarvo = online(Tarvo::LOCAL_BACKGROUND);
  std::vector<platform::CLLocation> many;
  for (int i = 0; i < 2500; ++i) many.push_back(fixAt(40 + 0.001 * i, kStart + i));
  platform::LocationService::shared().deliver(many);
  waitUntilIdle();
  EXPECT_EQ(engine().syncStatus().stored, 2500);
  Tarvo::setDeliveryOptions({.leastPassInterval = Seconds(60)});  // which is not for what a backlog has left
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  clock->advance(Seconds(180));
  diary.clear();
  upload();
  EXPECT_EQ(diary.count(kCalled), 3u) << "one pass by the call, the others by full batches that are acknowledged";
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:0 to:999 "), 1u);
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:2000 to:2499 "), 1u);
  EXPECT_EQ(backend.holdings().batches, 3);
  expectEachIndexOnce(2500);
  Tarvo::setDeliveryOptions({});
  engine().addNewUserToDatabase("u-2", "2017-03-02");
  EXPECT_EQ(diary.count(kCalled), 4u) << "whoever stores a user starts a pass";
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
}

TEST_F(Upload, NeverAsksTheResolverInsideABlockOfTheStore) {
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL("http://backend.test/api", /*allowPlainHttp=*/true));
  platform::UserDefaults::standard().set("uuid_secret_key", "s");
  Tarvo::setDeliveryOptions({.confirmed = true});  // or nothing would wait for another pass
  Tarvo tarvo = registered();
  ASSERT_TRUE(LocationManager::setUserUUID("u-1"));
  collect(1);
  upload();
  EXPECT_EQ(engine().syncStatus().awaiting, 1);
  for (const bool inside : {true, false}) {
    clock->advance(UploadGate::kLongestWait);
    askedForNames = 0;
    diary.clear();
    const auto pass = [] { engine().sendDataInBatchToRemoteWebServer(); };
    inside ? EngineParts::of(engine()).store.managedObjectContext().performAndWait(pass) : pass();
    EXPECT_EQ(diary.count("isWebServerReachable [net] false"), 1u);
    EXPECT_EQ(askedForNames, inside ? 0 : 1);
  }
}

TEST_F(Upload, TakesOverAChannelHeldFor180SecondsAndResendsWhatAwaitsFirst) {
  Tarvo tarvo = online();
  collect(1);
  backend.faults().hangNext(1);
  engine().sendDataInBatchToRemoteWebServer();
  ASSERT_TRUE(backend.faults().waitUntilHanging(1, std::chrono::seconds(30)));
  clock->advance(Seconds(179));
  diary.clear();
  engine().sendDataInBatchToRemoteWebServer();
  EXPECT_EQ(diary.count("CANAL===true=====179==="), 1u);
  EXPECT_EQ(diary.count("from:"), 0u) << "a young lock must not be taken over";
  NetworkManager::setCANAL_TIME_LOCK(clock->now() - Seconds(180));
  engine().sendDataInBatchToRemoteWebServer();
  EXPECT_EQ(diary.count("CANAL===true=====180==="), 1u);
  EXPECT_EQ(diary.count("resendAllSentWithoutACKData [net] from:0 to:0 "), 1u);
  backend.faults().release();
  waitUntilIdle();
  settle();
  const auto holdings = backend.holdings();
  EXPECT_EQ(holdings.positions, 1);
  EXPECT_EQ(holdings.repeats, 1) << "the answer was lost, not the batch";
}

TEST_F(Upload, KeepsPositionsUntilTheBackendConfirmsThemAndWaitsInBetween) {
  Tarvo tarvo = online();
  Tarvo::setDeliveryOptions({.confirmed = true});
  backend.faults().answerNext(2, 401);
  collect(3);
  upload();
  for (const auto& [later, tries] : {std::pair(0, 1), {895, 1}, {1, 2}}) {
    clock->advance(Seconds(later));
    drive(2);
    EXPECT_EQ(tarvo.health().delivery.triesSince, tries) << later;
    EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  }
  const auto delivery = tarvo.health().delivery;
  EXPECT_TRUE(delivery.lastError == DeliveryError::unauthorized && delivery.lastTry && !delivery.lastAcknowledgement);
  for (const bool isMetered : {true, false}) {
    EXPECT_EQ(tarvo.health().delivery.nextTry.has_value(), isMetered);
    Tarvo::setDeliveryOptions({.confirmed = true, .networkIsMetered = isMetered, .meteredBytesPerDay = 0});
    upload();  // as the host, who need not wait
  }
  for (const char* once : {"backend does not accept this device", "backend accepts this device again"})
    EXPECT_EQ(diary.count(once), 1u) << once;
  expectEachIndexOnce(9);
}

TEST_F(Upload, ToBeConfirmedWaitsUntilItsPositionsAreOnTheDisk) {
  platform::FaultyDisk::install();
  Tarvo tarvo = online();
  settle();
  int flushes = 0;
  for (const bool isConfirmed : {false, true, true}) {
    Tarvo::setDeliveryOptions({.confirmed = isConfirmed});
    platform::FaultyDisk::fail(platform::FaultyDisk::sync, SQLITE_IOERR);  // and holds nothing up
    collect(2);
    EXPECT_EQ(platform::FaultyDisk::failures(), 0) << "stored alone";
    upload();
    EXPECT_EQ(platform::FaultyDisk::failures() > 0, isConfirmed);
    flushes = platform::FaultyDisk::failures();
    platform::FaultyDisk::heal();
  }
  EXPECT_LE(flushes, 2) << "once for each batch";
  expectEachIndexOnce(6);
}

TEST_F(Upload, LeavesOnceAnIntervalAndNotBeyondTheBytesOfADay) {
  Tarvo tarvo = online();
  Tarvo::setDeliveryOptions({.leastPassInterval = Seconds(60), .networkIsMetered = true, .meteredBytesPerDay = 5000});
  drive(180);
  EXPECT_EQ(backend.holdings().batches, 2) << "with the first fix, though its pass found nothing, and a minute later; "
                                              "that one is too large for a third";
  upload();
  const auto bytes = EngineParts::of(engine()).pipeline.bytesToday();
  EXPECT_TRUE(bytes > 5000 && bytes < 30000) << bytes;
  auto& context = EngineParts::of(engine()).store.managedObjectContext();
  context.performAndWait(
      [&] { EXPECT_EQ(context.metadata("UploadedBytes").value(), platform::concat("19889 ", bytes)); });
  clock->advance(Seconds(86400));
  settle();
  expectEachIndexOnce(180);
}

TEST_F(Upload, StoresTheUserOnlyBehindTheSecret) {
  startBackend();
  // A file in the way of the settings' folder.
  ASSERT_FALSE(platform::writeFileAtomically(home.path() / "Library", "", false));
  Tarvo tarvo = registered();
  EXPECT_TRUE(LocationManager::userUUID() && NetworkManager::UUID_SECRET_KEY());
  EXPECT_TRUE(engine().getUser().empty()) << "a process that found the user alone would register again";
  std::filesystem::remove(home.path() / "Library");
  collect(1);
  EXPECT_EQ(engine().getUser().size(), 1u);
}

TEST_F(Upload, TakesAUserStoredTwiceForOneAndTwoUsersForNone) {
  for (int times = 0; times < 2; ++times) engine().addNewUserToDatabase("u-1", "2024");
  EXPECT_EQ(engine().checkAndRegisterUser(), "u-1");
  EXPECT_EQ(engine().getUser().size(), 1u);
  engine().addNewUserToDatabase("u-2", "2024");
  EXPECT_EQ(engine().checkAndRegisterUser(), std::nullopt);
  EXPECT_EQ(diary.count("checkAndRegisterUser [loc] error nbUsers:2 mainThread:true"), 1u);
}

}  // namespace
}  // namespace tarvo
