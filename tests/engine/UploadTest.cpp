#include "engine/Harness.h"

namespace tarvo {
namespace {

using platform::Seconds;

class Upload : public test::WholeSdk {
 protected:
  static constexpr const char* kCalled = "sendDataInBatchToRemoteWebServer [loc]=====CALLED======CANAL===";
};

TEST_F(Upload, TakesAFreshDeviceFromItsFirstFixToAnEmptyQueue) {
  startBackend();
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  waitUntilIdle();
  EXPECT_TRUE(LocationManager::userUUID().has_value());
  EXPECT_EQ(platform::UserDefaults::standard().string("uuid_secret_key"), NetworkManager::UUID_SECRET_KEY());
  drive(3);
  // The pass that found no identity keeps the channel until it is stale.
  EXPECT_EQ(backend.holdings().positions, 0);
  clock->advance(Seconds(180));
  drive(1);
  settle();
  expectEachIndexOnce(4);
  const auto status = engine().syncStatus();
  EXPECT_EQ(status.acknowledged, 4);
  EXPECT_EQ(status.lastIndex, 3);
  EXPECT_EQ(backend.holdings().users, 1);
}

TEST_F(Upload, SendsABacklogInBatchesOfAThousandOnePerAcknowledgement) {
  startBackend();
  Tarvo tarvo = registered(Tarvo::LOCAL_BACKGROUND);
  std::vector<platform::CLLocation> many;
  for (int i = 0; i < 2500; ++i) many.push_back(fixAt(40 + 0.001 * i, kStart + i));
  platform::LocationService::shared().deliver(many);
  waitUntilIdle();
  EXPECT_EQ(engine().syncStatus().stored, 2500);
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  waitUntilIdle();
  clock->advance(Seconds(180));
  diary.clear();
  engine().sendDataInBatchToRemoteWebServer();
  waitUntilIdle();
  // One pass by the call, the others by the acknowledgements, the last of which finds nothing.
  EXPECT_EQ(diary.count(kCalled), 4u);
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:0 to:999 "), 1u);
  EXPECT_EQ(diary.count("sendAllUnsentDataToRemoteWebServer [net] from:2000 to:2499 "), 1u);
  EXPECT_EQ(backend.holdings().batches, 3);
  expectEachIndexOnce(2500);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
}

TEST_F(Upload, FreesTheChannelAtOnceOnAnotherStatusAndSendsTheSameBatchAgain) {
  startBackend();
  Tarvo tarvo = registered();
  backend.faults().answerNext(3, 500);
  collect(1);
  engine().sendDataInBatchToRemoteWebServer();
  waitUntilIdle();
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  EXPECT_EQ(engine().syncStatus().awaiting, 1);
  // The next event resends what awaits before anything new.
  collect(1);
  engine().sendDataInBatchToRemoteWebServer();
  waitUntilIdle();
  EXPECT_EQ(diary.count("resendAllSentWithoutACKData [net] from:0 to:0 "), 1u);
  EXPECT_EQ(backend.holdings().positions, 0);
  // A host may ask for it too; only what awaits goes.
  engine().resendAllSentWithoutACKData(engine().getLocationhistory({}, {}).locations.toVector());
  waitUntilIdle();
  EXPECT_EQ(diary.count("resendAllSentWithoutACKData [net] from:0 to:0 "), 2u);
  settle();
  expectEachIndexOnce(2);
  EXPECT_EQ(diary.count("httpstatus : 500"), 3u);
}

TEST_F(Upload, TakesOverAChannelHeldFor180SecondsAndResendsWhatAwaitsFirst) {
  startBackend();
  Tarvo tarvo = registered();
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

  clock->advance(Seconds(1));
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
  // A port on which nobody listens any more.
  backend.start();
  const std::string gone = backend.baseURL();
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL(gone));
  Tarvo tarvo = registered();
  ASSERT_TRUE(LocationManager::userUUID());
  backend.stop();
  collect(1);
  diary.clear();
  engine().sendDataInBatchToRemoteWebServer();
  waitUntilIdle();
  EXPECT_EQ(engine().syncStatus().acknowledged, 1);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  const long status = diary.find("httpstatus : 200");
  const long acknowledged = diary.find("Locations:markLocationAsSentUntilIndex [loc] from:0 to:0");
  const long next = diary.find(kCalled, static_cast<std::size_t>(acknowledged));
  const long saved = diary.find("LocationManager:saveContext", static_cast<std::size_t>(next));
  const long error = diary.find("NetworkManager:sendDataInBatchToRemoteWebServer :[error] :");
  EXPECT_TRUE(status >= 0 && status < acknowledged && acknowledged < next && next < saved && saved < error)
      << status << " " << acknowledged << " " << next << " " << saved << " " << error;
}

TEST_F(Upload, StaysOffBelowModeEightAndWithoutASecretOfTheHost) {
  startBackend();
  Tarvo local = registered(Tarvo::LOCAL_BACKGROUND);
  drive(2);
  EXPECT_EQ(diary.count(kCalled), 0u);
  EXPECT_FALSE(NetworkManager::CANAL_LOCK());
  NetworkManager::setApiKeySecret("");
  local.activate(Tarvo::BACKEND_BACKGROUND);
  waitUntilIdle();
  EXPECT_EQ(diary.count("checkAndRegisterUser [loc] nbUsers:0"), 2u) << "at start-up and by the pass";
  EXPECT_EQ(backend.holdings().users, 0);
  EXPECT_EQ(engine().apiKey(), std::nullopt);
  EXPECT_TRUE(NetworkManager::CANAL_LOCK());
}

TEST_F(Upload, GoesOnAfterASecondTarvoAndNeverLosesTheSecret) {
  startBackend();
  Tarvo first = registered();
  const auto secret = NetworkManager::UUID_SECRET_KEY();
  ASSERT_TRUE(secret);
  Tarvo second;
  EXPECT_EQ(NetworkManager::UUID_SECRET_KEY(), secret);
  second.activate(Tarvo::BACKEND_BACKGROUND);
  drive(2);
  settle();
  expectEachIndexOnce(2);
  EXPECT_EQ(diary.count("Unresolved error"), 0u);
  EXPECT_EQ(diary.count("error nbUsers"), 0u);
}

}  // namespace
}  // namespace tarvo
