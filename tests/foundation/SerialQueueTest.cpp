#include "platform/foundation/SerialQueue.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/MainQueue.h>

#include "platform/foundation/Files.h"
#include "platform/foundation/Timer.h"
#include "platform/foundation/WorkInFlight.h"
#include "support/FreshProcess.h"
#include "support/LogDiary.h"
#include "support/NoThreads.h"

namespace tarvo::platform {
namespace {

TEST(SerialQueue, KnowsTheQueuesItsCallerStandsInHoweverDeep) {
  SerialQueue outer("test.outer"), inner("test.inner");
  outer.sync([&] {
    inner.sync([&] {
      EXPECT_TRUE(outer.isCurrent() && inner.isCurrent());
      bool ran = false;
      outer.syncReentrant([&] { ran = true; });
      EXPECT_TRUE(ran);
    });
    EXPECT_FALSE(inner.isCurrent());
  });
  EXPECT_FALSE(SerialQueue::onAnyQueue());
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(outer.sync([&] { inner.sync([&] { outer.sync([] {}); }); }), "Fatal error: sync onto queue test.outer");
}

bool sleeps(pid_t thread) {
  const auto status = readFile("/proc/self/task/" + std::to_string(thread) + "/status").value();
  return status.find("State:\tS") != status.npos;
}

TEST(SerialQueue, KeepsItsBlocksInOrderWhileNoThreadCanBeMade) {
  auto& diary = test::LogDiary::installed();
  std::string order;  // only blocks of the queue touch it
  std::promise<void> entered, timed;
  std::shared_ptr<Timer> timer;
  auto queue = std::make_unique<SerialQueue>("test.starved");
  SerialQueue other("test.other");
  std::atomic<bool> held{false};
  std::thread waiting([&, ending = ::gettid()] {
    entered.get_future().wait();
    queue->sync([&] { order += '5'; });
    queue->sync([&] {
      queue->async([&] { order += '6'; });
      held = true;
      while (!sleeps(ending)) std::this_thread::yield();
    });
  });
  {
    const test::NoThreads none;
    for (const char block : {'1', '2'}) EXPECT_FALSE(queue->async([&, block] { order += block; }));
    queue->sync([&] {
      order += '3';
      queue->async([&] { order += '4'; });
      entered.set_value();
    });
    while (!held) std::this_thread::yield();
    queue.reset();
    waiting.join();
    EXPECT_EQ(order, "123456");
    EXPECT_FALSE(other.async([&] { order += '7'; }));
    timer = Timer::after(Seconds(0.02), other, [&] { timed.set_value(); });
  }
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(order.back(), '7');
  EXPECT_EQ(timed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(diary.count("No thread can be made: "), 1u);
}

TEST(SerialQueue, KeepsTheHostsSignalsFromItsThreads) {
  SerialQueue queue("test.signals");
  sigset_t blocked{};
  queue.async([&] { ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGCHLD, SIGPROF, SIGALRM, SIGPIPE, SIGRTMIN, SIGRTMAX})
    EXPECT_EQ(::sigismember(&blocked, signal), 1) << signal;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(::sigismember(&blocked, SIGTERM), 0) << "of the caller";
}

TEST(MainThread, IsTheFirstOfItsProcessAlsoAfterAForkOfAnother) {
  EXPECT_TRUE(isMainThread());
  std::thread([] {
    EXPECT_FALSE(isMainThread());
    EXPECT_EQ(test::inFreshProcess([] { return isMainThread() ? 0 : 1; }), 0);
  }).join();
}

TEST(WorkInFlight, WaitsForWorkThatHopsBetweenQueuesAndTheMainQueue) {
  SerialQueue a("test.a"), b("test.b");
  std::atomic<int> hops{0};
  std::function<void()> hop = [&] {
    const int hopped = ++hops;
    if (hopped < 300) (hopped % 2 == 0 ? a : b).async(hop);
    if (hopped == 300) MainQueue::main().async([&] { ++hops; });
  };
  a.async(hop);
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(hops.load(), 301);
}

TEST(Timer, FiresByItsOwnSpanUnlessItWasCancelled) {
  const auto clock = std::make_shared<ManualClock>(dateSince1970(1000));
  Clock::install(clock);
  SerialQueue queue("test.timer");
  bool fired = false;
  const auto timer = Timer::after(Seconds(10), queue, [&] { fired = true; });
  const auto cancelled = Timer::after(Seconds(5), queue, [] { FAIL(); });

  cancelled->cancel();
  clock->advance(Seconds(10));

  queue.sync([&] { EXPECT_TRUE(fired); });
}

}  // namespace
}  // namespace tarvo::platform
