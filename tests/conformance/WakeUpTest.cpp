#include <gtest/gtest.h>

#include <atomic>
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
  constexpr int kThreads = 4, kSignals = 5000;
  const int descriptor = wakeUp.descriptor();
  std::atomic<int> signals = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < kSignals; ++j) {
        ++signals;
        wakeUp.signal();
      }
    });
  bool isWoken = true;
  for (int seen = 0; isWoken && seen < kThreads * kSignals; seen = signals) {
    isWoken = test::isReadable(descriptor, test::kPatience);
    wakeUp.clear();
  }
  EXPECT_TRUE(isWoken);
  for (auto& thread : threads) thread.join();
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
