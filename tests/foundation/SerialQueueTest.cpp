#include "platform/foundation/SerialQueue.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/MainQueue.h>

#include "platform/foundation/Activity.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Timer.h"
#include "support/LogDiary.h"
#include "support/NoThreads.h"

namespace tarvo::platform {
namespace {

TEST(SerialQueue, RunsBlocksInOrderAndSyncOnTheCallersThread) {
  SerialQueue queue("test.order");
  std::vector<int> order;  // only blocks of the queue touch it
  std::promise<void> gate;
  queue.async([&, opened = gate.get_future().share()] {
    opened.wait();
    order.push_back(1);
    queue.async([&] { order.push_back(4); });
  });
  queue.async([&] { order.push_back(2); });
  std::thread opener([&] { gate.set_value(); });
  std::thread::id ranOn;
  queue.sync([&] {
    order.push_back(3);
    ranOn = std::this_thread::get_id();
  });
  opener.join();
  queue.sync([] {});
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  ASSERT_EQ(order.size(), 4u);
  // What a block adds comes after what was already in line; the waiting caller may stand before or behind it.
  EXPECT_EQ(order[0], 1);
  EXPECT_EQ(order[1], 2);
}

TEST(SerialQueue, ExcludesBlocksOfManyThreads) {
  SerialQueue queue("test.exclusion");
  int unguarded = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        queue.async([&] { ++unguarded; });
        queue.sync([&] { ++unguarded; });
      }
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(Activity::waitUntilIdle(Seconds(30)));
  queue.sync([&] { EXPECT_EQ(unguarded, 4000); });
}

TEST(SerialQueue, KnowsTheQueuesItsCallerStandsInHoweverDeep) {
  SerialQueue outer("test.outer");
  SerialQueue inner("test.inner");
  outer.sync([&] {
    inner.sync([&] {
      EXPECT_TRUE(outer.isCurrent());
      EXPECT_TRUE(inner.isCurrent());
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
  std::vector<int> order;  // only blocks of the queue touch it
  std::promise<void> entered;
  std::promise<void> timed;
  std::shared_ptr<Timer> timer;
  auto queue = std::make_unique<SerialQueue>("test.starved");
  SerialQueue other("test.other");
  std::atomic<bool> held{false};
  std::thread waiting([&, inBlock = entered.get_future().share(), ending = ::gettid()] {
    inBlock.wait();
    queue->sync([&] { order.push_back(5); });
    queue->sync([&] {
      queue->async([&] { order.push_back(6); });
      held = true;
      while (!sleeps(ending)) std::this_thread::yield();
    });
  });
  {
    const test::NoThreads none;
    EXPECT_FALSE(queue->async([&] { order.push_back(1); }));
    EXPECT_FALSE(queue->async([&] { order.push_back(2); }));
    queue->sync([&] {
      order.push_back(3);
      queue->async([&] { order.push_back(4); });
      entered.set_value();
    });
    while (!held) std::this_thread::yield();
    queue.reset();
    waiting.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    EXPECT_FALSE(other.async([&] { order.push_back(7); }));
    timer = Timer::after(Seconds(0), other, [&] { timed.set_value(); });
  }
  ASSERT_TRUE(Activity::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(order.back(), 7);
  EXPECT_EQ(timed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(diary.count("No thread can be made: "), 1u);
}

TEST(SerialQueue, KeepsTheHostsSignalsFromItsThreads) {
  SerialQueue queue("test.signals");
  sigset_t blocked{};
  queue.async([&] { ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
  ASSERT_TRUE(Activity::waitUntilIdle(Seconds(30)));
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGCHLD, SIGPROF, SIGALRM, SIGPIPE, SIGRTMIN, SIGRTMAX})
    EXPECT_EQ(::sigismember(&blocked, signal), 1) << signal;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_EQ(::sigismember(&blocked, SIGTERM), 0) << "of the caller";
}

TEST(MainThread, IsTheFirstOfItsProcessAlsoAfterAForkOfAnother) {
  EXPECT_TRUE(isMainThread());
  std::thread([] {
    EXPECT_FALSE(isMainThread());
    const pid_t child = ::fork();
    if (child == 0) ::_exit(isMainThread() ? 0 : 1);
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }).join();
}

TEST(Activity, WaitsForWorkThatHopsBetweenQueuesAndTheMainQueue) {
  SerialQueue a("test.a");
  SerialQueue b("test.b");
  std::atomic<int> hops{0};
  std::function<void()> hop = [&] {
    const int hopped = ++hops;
    if (hopped < 300) (hopped % 2 == 0 ? a : b).async(hop);
    if (hopped == 300) MainQueue::main().async([&] { ++hops; });
  };
  a.async(hop);
  ASSERT_TRUE(Activity::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(hops.load(), 301);
}

TEST(Timer, IsHandedOverByTheTimeAMovedClockReturns) {
  auto clock = std::make_shared<ManualClock>(dateSince1970(1000));
  Clock::install(clock);
  SerialQueue queue("test.timer");
  std::vector<int> fired;
  auto soon = Timer::after(Seconds(10), queue, [&] { fired.push_back(10); });
  auto later = Timer::after(Seconds(20), queue, [&] { fired.push_back(20); });
  auto never = Timer::after(Seconds(5), queue, [&] { fired.push_back(5); });
  never->cancel();
  clock->advanceTo(dateSince1970(1010));
  clock->advanceTo(dateSince1970(900));
  queue.sync([&] { EXPECT_EQ(fired, std::vector<int>{10}); });
  clock->advance(Seconds(3600));
  queue.sync([&] { EXPECT_EQ(fired, (std::vector<int>{10, 20})); });
  EXPECT_EQ(secondsSince1970(clock->now()), 4610);
}

TEST(Timer, FiresByItselfOnTheMachinesClock) {
  SerialQueue queue("test.timer");
  std::promise<void> fired;
  auto timer = Timer::after(Seconds(0.02), queue, [&] { fired.set_value(); });
  EXPECT_EQ(fired.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

}  // namespace
}  // namespace tarvo::platform
