#include <gtest/gtest.h>

#include <barrier>
#include <vector>

#include "Kit.h"
#include "platform/foundation/System.h"
#include "support/FreshProcess.h"

namespace tarvo::platform {
namespace {

TEST(WakeUp, IsReadableFromASignalUntilItForgetsThemAll) {
  static WakeUp wakeUp;
  wakeUp.signal();  // before there is a descriptor
  wakeUp.clear();
  const int descriptor = wakeUp.descriptor();
  ASSERT_GE(descriptor, 0);
  EXPECT_FALSE(test::isReadable(descriptor));
  for (const int signals : {1, 2, 200'000}) {
    for (int i = 0; i < signals; ++i) wakeUp.signal();
    EXPECT_TRUE(test::isReadable(descriptor) && test::isReadable(descriptor)) << signals;
    wakeUp.clear();
    EXPECT_FALSE(test::isReadable(descriptor)) << signals;
    wakeUp.clear();
  }
  EXPECT_EQ(wakeUp.descriptor(), descriptor);
}

TEST(WakeUp, LosesNoSignalOfAnyThread) {
  static WakeUp wakeUp;
  constexpr int kThreads = 4, kRounds = 400;
  const int descriptor = wakeUp.descriptor();
  std::barrier step(kThreads + 1);
  std::vector<std::thread> threads;
  for (int own = 0; own < kThreads; ++own)
    threads.emplace_back([&, own] {
      for (int round = 0; round < kRounds; ++round) {
        // One alone, or all at once.
        if (round / 2 % kThreads == own || round % 2 == 1) wakeUp.signal();
        step.arrive_and_wait();
        step.arrive_and_wait();
      }
    });
  int woken = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (woken == round) woken += test::isReadable(descriptor, test::kPatience);
    step.arrive_and_wait();
    wakeUp.clear();
    EXPECT_FALSE(test::isReadable(descriptor));
    step.arrive_and_wait();
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(woken, kRounds);
}

TEST(WakeUp, WithoutADescriptorHasNoneUntilThereIsOne) {
  static WakeUp wakeUp;
  const int free = test::lowestFreeDescriptor();
  for (const int left : {0, 1}) {
    const test::FewDescriptors few(left);
    const int descriptor = wakeUp.descriptor();
    EXPECT_TRUE(descriptor == -1 || (left == 1 && descriptor >= 0));
    EXPECT_EQ(test::lowestFreeDescriptor(), left == 1 && descriptor == -1 ? free : -1) << "nothing half made";
    wakeUp.signal();
    wakeUp.clear();
  }
  const int descriptor = wakeUp.descriptor();
  ASSERT_GE(descriptor, 0);
  EXPECT_FALSE(test::isReadable(descriptor));
  wakeUp.signal();
  EXPECT_TRUE(test::isReadable(descriptor));
}

TEST(WakeUp, WorksInAForkedChildWhichNeedNotUseIt) {
  static WakeUp wakeUp;
  const int descriptor = wakeUp.descriptor();
  wakeUp.signal();
  EXPECT_EQ(test::inFreshProcess([] { return 0; }), 0);
  EXPECT_TRUE(test::isReadable(descriptor));
  wakeUp.clear();
  EXPECT_EQ(test::inFreshProcess([&] {
              wakeUp.signal();
              const bool isWoken = test::isReadable(wakeUp.descriptor());
              wakeUp.clear();
              return isWoken && !test::isReadable(wakeUp.descriptor()) ? 0 : 1;
            }),
            0);
}

}  // namespace
}  // namespace tarvo::platform
