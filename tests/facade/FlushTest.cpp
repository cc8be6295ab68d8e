#include <future>

#include <tarvo/platform/MainQueue.h>

#include "platform/location/LocationServiceState.h"
#include "support/WholeSdk.h"

namespace tarvo {
namespace {

using platform::MainQueue;
using platform::Seconds;

/// Bounds what ends much earlier, in real time.
constexpr double kLong = 60;

struct Flush : test::WholeSdk {
  /// With the channel free, and an interval that keeps every pass of the SDK's own away.
  void collectOne(DeliveryOptions options) {
    collect(1);
    Tarvo::setACTIVATE_STATUS(Tarvo::BACKEND_BACKGROUND);
    options.leastPassInterval = Seconds(3600);
    Tarvo::setDeliveryOptions(options);
    NetworkManager::setCANAL_TIME_LOCK(clock->now());
    NetworkManager::setCANAL_LOCK(false);
  }
};

TEST_F(Flush, GoesOverIntervalsAndFailuresAndTellsWhatKeepsPositionsBack) {
  Tarvo tarvo = online();
  EXPECT_EQ(Tarvo::flush(kLong), FlushResult::delivered) << "nothing is there";
  const struct {
    const char* what;
    DeliveryOptions options;
    std::function<void()> given;
    double seconds;
    FlushResult result;
    std::uint64_t posts;
  } cases[] = {
      {"mode", {}, [] { Tarvo::setACTIVATE_STATUS(4); }, kLong, FlushResult::modeForbids, 0},
      {"bytes", {.networkIsMetered = true, .meteredBytesPerDay = 0}, {}, kLong, FlushResult::bytesUsedUp, 0},
      {"no time", {}, {}, 0, FlushResult::timeIsUp, 0},
      {"channel", {}, [] { NetworkManager::setCANAL_LOCK(true); }, 0.3, FlushResult::timeIsUp, 0},
      {"refused", {}, [&] { backend.faults().answerNext(2, 503); }, 2.5, FlushResult::timeIsUp, 2},
      {"to be confirmed",
       {.confirmed = true},
       [&] { backend.faults().add({.status = 401}); },
       2.5,
       FlushResult::timeIsUp,
       1},
      {"repeats, then what is new",
       {.confirmed = true},
       [&] { backend.faults().clear(); },
       kLong,
       FlushResult::delivered,
       2},
  };
  for (const auto& [what, options, given, seconds, result, posts] : cases) {
    SCOPED_TRACE(what);
    collectOne(options);
    const auto before = engine().syncStatus().batchesPosted;
    if (given) given();
    EXPECT_EQ(Tarvo::flush(seconds), result);
    EXPECT_EQ(engine().syncStatus().batchesPosted - before, posts);
  }
  expectEachIndexOnce(7);
}

TEST_F(Flush, WaitsForTheChannelOfAFreshDeviceWhileItRunsTheMainQueue) {
  startBackend();
  Tarvo tarvo;
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  drive(2);
  EXPECT_EQ(Tarvo::flush(kLong), FlushResult::notRegistered);
  tarvo.setApiKeySecret("secret");
  EXPECT_EQ(Tarvo::flush(0.3), FlushResult::timeIsUp);
  MainQueue::main().async([&] {
    clock->advance(Seconds(180));
    EXPECT_EQ(Tarvo::flush(kLong), FlushResult::delivered) << "inside a block, which is never idle";
  });
  EXPECT_EQ(Tarvo::flush(kLong), FlushResult::delivered);
  expectEachIndexOnce(2);
}

TEST_F(Flush, TakesAlongWhatIsOnItsWayAndNeedsNobodyToPump) {
  Tarvo tarvo = online();
  std::promise<void> moves;
  EngineParts::of(engine()).state.serialQueueLocation.async([future = moves.get_future().share()] { future.wait(); });
  for (int i = 0; i < 50; ++i) platform::LocationService::shared().deliver({fixAt(40 + 0.01 * i, kStart + i)});
  MainQueue::main().async([] {});
  auto flushed = std::async(std::launch::async, [] { return Tarvo::flush(kLong); });
  EXPECT_EQ(flushed.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  moves.set_value();
  EXPECT_EQ(flushed.get(), FlushResult::delivered);
  expectEachIndexOnce(50);
  EXPECT_EQ(MainQueue::main().runPending(), 1u);
}

TEST_F(Flush, DoesNotWaitForWhatIsCollectedMeanwhile) {
  Tarvo tarvo = online();
  collect(2);
  diary.onMessage([&](std::string_view line) {
    if (line.find("Locations:markLocationAsSentUntilIndex [loc] from:0 ") == line.npos) return;
    backend.faults().hangNext(1);
    platform::LocationService::shared().deliver({fixAt(10, kStart)});
  });
  EXPECT_EQ(Tarvo::flush(10), FlushResult::delivered);
  backend.faults().release();
  waitUntilIdle();
  settle();
  expectEachIndexOnce(3);
}

TEST_F(Flush, HasNothingToDoWithoutAStore) {
  std::filesystem::create_directories(home.path() / "Documents" / ObjectStore::kFileName);
  Tarvo tarvo;
  activate(tarvo, Tarvo::BACKEND_BACKGROUND);
  EXPECT_EQ(Tarvo::flush(kLong), FlushResult::storeUnavailable);
}

TEST_F(Flush, ProbeIsAnsweredOnTheMainQueueOnceAllQueuesHaveMoved) {
  Tarvo tarvo;
  auto& parts = EngineParts::of(engine());
  const std::function<void(std::function<void()>)> queues[] = {
      [](auto block) { platform::LocationServiceState::shared().afterDeliveries(block); },
      [&](auto block) { parts.state.serialQueue.async(block); },
      [&](auto block) { parts.state.serialQueueLocation.async(block); },
      [&](auto block) { parts.store.managedObjectContext().perform(block); }};
  diary.clear();
  for (const auto& queue : queues) {
    std::promise<void> moves;
    std::string answers;
    queue([isMoving = moves.get_future().share()] { isMoving.wait(); });
    for (const char* name : {"first ", "second "})
      Tarvo::probe([&, name] { answers += platform::isMainThread() ? name : "elsewhere "; });
    MainQueue::main().runFor(Seconds(0.05));
    EXPECT_EQ(answers, "") << "stuck queue " << &queue - queues;
    moves.set_value();
    waitUntilIdle();
    EXPECT_EQ(answers, "first second ");
  }
  EXPECT_EQ(diary.count(""), 0u);
  EXPECT_TRUE(tarvo.eraseEverything());
  std::promise<void> answer;
  Tarvo::probe([&] { answer.set_value(); });
  EXPECT_TRUE(Tarvo::waitUntilIdle(kLong));
  EXPECT_EQ(answer.get_future().wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

}  // namespace
}  // namespace tarvo
