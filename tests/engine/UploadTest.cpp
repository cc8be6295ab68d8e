#include <dlfcn.h>
#include <netdb.h>
#include <sqlite3.h>

#include <atomic>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"
#include "store/Users.h"
#include "support/WholeSdk.h"

static std::atomic<int> askedForNames{0};
static std::atomic<bool> namesMeanThisMachine{false};

/// Takes the place of the system's for the whole program, libraries included: a name of the tests means this machine or
/// has no address.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                                                          addrinfo** found) {
  static const auto original = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (name == nullptr || !std::string_view(name).ends_with(".test") || (hints->ai_flags & AI_NUMERICHOST) != 0)
    return original(name, service, hints, found);
  if (namesMeanThisMachine) return original("127.0.0.1", service, hints, found);
  ++askedForNames;
  return EAI_NONAME;
}

namespace tarvo {
namespace {

using platform::Seconds;

class Upload : public test::WholeSdk {
 protected:
  static constexpr const char* kCalled = "sendDataInBatchToRemoteWebServer [loc]=====CALLED======CANAL===";

  /// Runs a statement on the store as another process could. Answers the number that it gives.
  int onStore(const char* sql) const {
    sqlite3* database = nullptr;
    sqlite3_stmt* statement = nullptr;
    sqlite3_open((home.path() / "Documents" / ObjectStore::kFileName).c_str(), &database);
    sqlite3_prepare_v2(database, sql, -1, &statement, nullptr);
    const int status = sqlite3_step(statement);
    EXPECT_TRUE(status == SQLITE_ROW || status == SQLITE_DONE) << sql << ": " << sqlite3_errmsg(database);
    const int number = status == SQLITE_ROW ? sqlite3_column_int(statement, 0) : 0;
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return number;
  }
};

TEST_F(Upload, TakesAFreshDeviceToAnEmptyQueueAndGoesOnWithASecondTarvo) {
  startBackend();
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  const auto secret = NetworkManager::UUID_SECRET_KEY();
  EXPECT_TRUE(secret && secret == platform::UserDefaults::standard().string("uuid_secret_key"));
  drive(3);
  // The pass that found no identity keeps the channel until it is stale.
  EXPECT_EQ(backend.holdings().positions, 0);
  clock->advance(Seconds(180));
  drive(1);
  settle();
  expectEachIndexOnce(4);
  EXPECT_EQ(engine().syncStatus().lastIndex, 3);

  Tarvo second;
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), secret);
  second.activate(Tarvo::BACKEND_BACKGROUND);
  drive(2);
  settle();
  expectEachIndexOnce(6);
  EXPECT_EQ(backend.holdings().users, 1);
  const auto users = engine().getUser();
  EXPECT_TRUE(users.size() == 1 && users[0].uuid == LocationManager::userUUID() && users[0].timestamp);
  EXPECT_EQ(diary.count("Unresolved error") + diary.count("error nbUsers"), 0u);
}

TEST_F(Upload, SendsABacklogInBatchesOfAThousandOnePerAcknowledgement) {
  Tarvo tarvo = online(Tarvo::LOCAL_BACKGROUND);
  std::vector<platform::CLLocation> many;
  for (int i = 0; i < 2500; ++i) many.push_back(fixAt(40 + 0.001 * i, kStart + i));
  platform::LocationService::shared().deliver(many);
  waitUntilIdle();
  EXPECT_EQ(engine().syncStatus().stored, 2500);
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  clock->advance(Seconds(180));
  diary.clear();
  upload();
  // One pass by the call, the others by the acknowledgements, the last of which finds nothing.
  EXPECT_EQ(diary.count(kCalled), 4u);
  engine().addNewUserToDatabase("u-2", "2017-03-02");
  EXPECT_EQ(diary.count(kCalled), 5u) << "whoever stores a user starts a pass";
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:0 to:999 "), 1u);
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:2000 to:2499 "), 1u);
  EXPECT_EQ(backend.holdings().batches, 3);
  expectEachIndexOnce(2500);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
}

TEST_F(Upload, FreesTheChannelAtOnceOnAnotherStatusAndResendsWhatAwaits) {
  Tarvo tarvo = online();
  backend.faults().answerNext(2, 500);
  for (const int more : {4, 1}) {
    collect(more);
    upload();
    EXPECT_FALSE(NetworkManager::CANAL_LOCK());
    EXPECT_EQ(engine().syncStatus().awaiting, 4);
  }
  EXPECT_EQ(diary.count("resendAllSentWithoutACKData [net] from:0 to:3 "), 1u) << "before anything new";
  EXPECT_EQ(diary.count("httpstatus : 500"), 2u);

  const auto all = records();
  engine().resendAllSentWithoutACKData({all.at(2), all.at(0), LocationRecord()});  // by the host: all up to the last
  waitUntilIdle();

  EXPECT_EQ(diary.count("resendAllSentWithoutACKData :count = 3"), 1u);
  EXPECT_EQ(engine().syncStatus().acknowledged, 5) << "the answer starts the pass that sends the others";
  expectEachIndexOnce(5);
}

TEST_F(Upload, NeverAsksTheResolverInsideABlockOfTheStore) {
  backend.start();
  ::setenv("no_proxy", "backend.test", 1);
  namesMeanThisMachine = true;
  const auto address = platform::concat("http://backend.test:", backend.port(), "/api");
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL(address, /*allowPlainHttp=*/true));
  Tarvo tarvo = registered();
  backend.faults().answerNext(1, 500);
  collect(1);
  upload();
  EXPECT_EQ(engine().syncStatus().awaiting, 1);
  namesMeanThisMachine = false;
  auto& context = EngineParts::of(engine()).store.managedObjectContext();
  // Unknown at first; then known from a pass outside.
  for (const int asked : {0, 1, 1}) {
    diary.clear();
    if (asked == askedForNames) {
      context.performAndWait([] { engine().sendDataInBatchToRemoteWebServer(); });  // as an acknowledgement does
    } else {
      engine().sendDataInBatchToRemoteWebServer();
    }
    EXPECT_EQ(diary.count("isWebServerReachable [net] false"), 1u);
    EXPECT_EQ(askedForNames, asked);
    clock->advance(Seconds(180));
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
  EXPECT_EQ(engine().syncStatus().awaiting, 1);

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
  EXPECT_EQ(engine().syncStatus().acknowledged, 1);
}

TEST_F(Upload, AcknowledgesOnATransportErrorAsOnAnAnswer) {
  Tarvo tarvo = online(Tarvo::BACKEND_GEOPROFILE);
  ASSERT_TRUE(LocationManager::userUUID());
  backend.stop();
  collect(1);
  diary.clear();
  upload();
  EXPECT_EQ(engine().syncStatus().acknowledged, 1);
  EXPECT_EQ(tarvo.health().positions.acknowledgedWithoutAnswer, (std::vector<Health::Range>{{0, 0}}));
  const auto delivery = tarvo.health().delivery;
  EXPECT_TRUE(delivery.lastError == DeliveryError::unreachable && delivery.triesSince == 1 && delivery.lastTry);
  EXPECT_FALSE(delivery.lastAcknowledgement) << "nobody has answered";
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  long at = -1;
  for (const char* text :
       {"httpstatus : 200", "[net] [succes] Data:nil", "Locations:markLocationAsSentUntilIndex [loc] from:0 to:0",
        kCalled, "LocationManager:saveContext",
        "NetworkManager:sendDataInBatchToRemoteWebServer :[error] :Optional("}) {
    const long next = diary.find(text, static_cast<std::size_t>(at + 1));
    EXPECT_GT(next, at) << "missing or too early: " << text;
    at = next;
  }
}

TEST_F(Upload, KeepsPositionsUntilTheBackendConfirmsThemAndWaitsInBetween) {
  Tarvo tarvo = online();
  Tarvo::setDeliveryOptions({.confirmed = true});
  backend.faults().answerNext(3, 401);
  collect(3);
  upload();
  for (const auto& [later, tries] : {std::pair(0, 1), {895, 1}, {1, 2}}) {
    clock->advance(Seconds(later));
    drive(2);
    EXPECT_EQ(tarvo.health().delivery.triesSince, tries) << later;
    EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  }
  upload();  // as the host, who need not wait
  const Health health = tarvo.health();
  EXPECT_TRUE(health.delivery.triesSince == 3 && health.delivery.lastError == DeliveryError::unauthorized);
  EXPECT_EQ(health.delivery.nextTry, clock->now() + UploadGate::kLongestWait);
  EXPECT_EQ(health.positions.awaiting, 3);
  settle();
  for (const char* once : {"backend does not accept this device", "backend accepts this device again"})
    EXPECT_EQ(diary.count(once), 1u) << once;
  expectEachIndexOnce(9);
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

TEST_F(Upload, StaysOffBelowModeEightAndWithoutASecretOfTheHost) {
  Tarvo local = online(Tarvo::LOCAL_BACKGROUND);
  drive(2);
  EXPECT_TRUE(diary.count(kCalled) == 0 && !NetworkManager::CANAL_LOCK());
  NetworkManager::setApiKeySecret("");
  activate(local, Tarvo::BACKEND_BACKGROUND);
  EXPECT_EQ(diary.count("checkAndRegisterUser [loc] nbUsers:0"), 2u) << "at start-up and by the pass";
  EXPECT_EQ(backend.holdings().users, 0);
  EXPECT_EQ(engine().apiKey(), std::nullopt);
  EXPECT_TRUE(NetworkManager::CANAL_LOCK());
}

TEST_F(Upload, SendsOnlyWhatIsInTheFileAndTellsTheRestApart) {
  Tarvo tarvo = online();
  collect(2);
  // From now on no position can be inserted, though all else can be written.
  onStore("CREATE TRIGGER full BEFORE INSERT ON Locations BEGIN SELECT RAISE(FAIL, 'full'); END");
  collect(3);
  const auto counts = [] {
    const auto status = engine().syncStatus();
    return std::vector<std::int64_t>{status.stored, status.unsent, status.awaiting, status.acknowledged,
                                     status.unsaved};
  };
  EXPECT_EQ(counts(), (std::vector<std::int64_t>{2, 2, 0, 0, 3}));
  upload();
  // The flags of what was sent are unsaved too, and count: nothing is sent again.
  EXPECT_EQ(counts(), (std::vector<std::int64_t>{2, 0, 0, 2, 3}));
  EXPECT_EQ(backend.holdings().positions, 2);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  EXPECT_EQ(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {})->locations.size(), 5u);
  onStore("DROP TRIGGER full");
  ASSERT_TRUE(Tarvo::waitUntilIdle(60));
  EXPECT_EQ(counts(), (std::vector<std::int64_t>{5, 3, 0, 2, 0}));
  settle();
  expectEachIndexOnce(5);
}

TEST_F(Upload, StoresTheUserOnlyBehindTheSecret) {
  startBackend();
  const auto rows = [this] { return onStore("SELECT count(*) FROM Users"); };
  // A file in the way of the settings' folder.
  ASSERT_FALSE(platform::writeFileAtomically(home.path() / "Library", "", false));
  Tarvo tarvo = registered();
  collect(1);
  settle();
  expectEachIndexOnce(1);
  EXPECT_TRUE(LocationManager::userUUID() && NetworkManager::UUID_SECRET_KEY());
  EXPECT_EQ(rows(), 0) << "a process that found the user alone would register again";
  std::filesystem::remove(home.path() / "Library");
  collect(1);
  EXPECT_EQ(rows(), 1);
  EXPECT_TRUE(platform::readFile(home.path() / "Library/Preferences/defaults.plist")
                  .value()
                  .find(NetworkManager::UUID_SECRET_KEY().value()) != std::string::npos);
  EXPECT_EQ(backend.holdings().users, 1);
}

TEST_F(Upload, ReadsWithoutTakingTheHomeAndAUserStoredTwiceForOne) {
  {
    ObjectStore store;
    auto& context = store.managedObjectContext();
    context.performAndWait([&] {
      for (const char* moment : {"2024", "2025"}) Users::addUser("u-1", moment, context);
      store.saveContext();
    });
  }
  platform::UserDefaults::standard().set("uuid_secret_key", "s");
  platform::FileLock other(home.path() / "Documents" / (std::string(ObjectStore::kFileName) + ".lock"));
  Tarvo tarvo;
  waitUntilIdle();
  Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_GEOPROFILE);
  EXPECT_FALSE(tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}));
  EXPECT_EQ(engine().apiKey(), "u-1");
  EXPECT_TRUE(Tarvo::waitUntilIdle(60) && engine().syncStatus().storeAvailable);
  EXPECT_EQ(onStore("SELECT count(*) FROM Users"), 2) << "a process that only reads does not write";
  EXPECT_TRUE(other.tryLock().value()) << "nor does it take the home";
  other.unlock();
  clock->advance(Seconds(200));
  engine().sendDataInBatchToRemoteWebServer();  // fetches only what it may mark
  EXPECT_FALSE(other.tryLock().value());
  activate(tarvo, Tarvo::LOCAL_BACKGROUND);
  collect(1);
  EXPECT_EQ(onStore("SELECT count(*) FROM Users"), 1);
  EXPECT_EQ(diary.count("error nbUsers"), 0u);
  onStore("INSERT INTO Users (_key, uuid) VALUES (7, 'u-2')");
  EXPECT_EQ(engine().checkAndRegisterUser(), std::nullopt);
  EXPECT_EQ(diary.count("checkAndRegisterUser [loc] error nbUsers:2 mainThread:true"), 1u);
}

}  // namespace
}  // namespace tarvo
