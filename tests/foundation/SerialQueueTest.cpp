#include "platform/foundation/SerialQueue.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <future>
#include <thread>
#include <vector>

#include <tarvo/platform/MainQueue.h>

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

TEST(SerialQueue, KeepsItsBlocksInOrderWhileNoThreadCanBeMade) {
  auto& diary = test::LogDiary::installed();
  std::string order;  // only blocks of the queue touch it
  std::promise<void> timed;
  SerialQueue queue("test.starved"), other("test.other");
  std::shared_ptr<Timer> timer;
  {
    const test::NoThreads none;
    for (const char block : {'1', '2'}) EXPECT_FALSE(queue.async([&, block] { order += block; }));
    queue.sync([&] {
      order += '3';
      queue.async([&] { order += '4'; });
    });
    timer = Timer::after(Seconds(0.02), other, [&] { timed.set_value(); });
  }
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(30)));
  EXPECT_EQ(order, "1234");
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

}  // namespace
}  // namespace tarvo::platform
