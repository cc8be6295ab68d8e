#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <latch>
#include <set>
#include <vector>

#include "Kit.h"
#include "platform/foundation/System.h"
#include "support/FreshProcess.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

TEST(SinceBoot, GoesOnAsFastAsTimeInSmallStepsAndNeverBack) {
  constexpr Seconds grain{0.002};
  const auto outerBegin = steady_clock::now();
  const Seconds begin = sinceBoot();
  const auto innerBegin = steady_clock::now();
  bool goesBack = false, isFine = false;
  Seconds last = begin;
  EXPECT_TRUE(test::comes([&] {
    for (int i = 0; i < 1000; ++i) {
      const Seconds now = sinceBoot();
      goesBack = goesBack || now < last;
      isFine = isFine || (now > last && now < last + grain);
      last = now;
    }
    return goesBack || (isFine && steady_clock::now() > innerBegin + std::chrono::milliseconds(100));
  }));
  const auto innerEnd = steady_clock::now();
  const Seconds span = sinceBoot() - begin;
  EXPECT_FALSE(goesBack);
  EXPECT_GT(span, innerEnd - innerBegin - grain);
  EXPECT_LT(span, steady_clock::now() - outerBegin + grain);
}

TEST(SinceBoot, IsOneClockForAllThreadsAndProgramsAndNotTheCalendar) {
  const auto begin = steady_clock::now();
  EXPECT_TRUE(test::comes([&] { return steady_clock::now() > begin + std::chrono::milliseconds(200); }));
  const Seconds before = sinceBoot();
  Seconds inThread{};
  std::thread([&] { inThread = sinceBoot(); }).join();
  const Seconds inProgram(std::stod(test::toldByAnother("sinceBoot")));
  const Seconds after = sinceBoot();
  EXPECT_LE(before, inThread);
  EXPECT_LE(inThread, inProgram + Seconds(0.001));
  EXPECT_LE(inProgram, after + Seconds(0.001));
  EXPECT_LT(after, std::chrono::years(20)) << "since the machine started";
}

TEST(Program, HasItsFileWithoutLinksFromAnywhere) {
  const fs::path file = executableFile();
  if (file.empty()) GTEST_SKIP() << "the system does not tell";
  const test::TempDir folder;
  fs::create_symlink(test::program(), folder.path() / "link");
  EXPECT_EQ(file, fs::canonical(test::program()));
  EXPECT_EQ(test::toldByAnother("executableFile", folder.path() / "link"), file);
  fs::current_path("/");
  EXPECT_EQ(executableFile(), file);
}

TEST(Program, HasTheNameUnderWhichItWasStarted) {
  for (const char* name : {"plain", "./with space", "/no/such/folder/n\xC3\xA4me.x"})
    EXPECT_EQ(test::toldByAnother("programName", test::program(), name), fs::path(name).filename());
}

TEST(Program, BelievesTheEnvironmentOfAnOrdinaryUser) {
  ::setenv("TARVO_KIT", "a value", 1);
  EXPECT_STREQ(trustedEnvironment("TARVO_KIT"), "a value");
  ::setenv("TARVO_KIT", "", 1);
  EXPECT_STREQ(trustedEnvironment("TARVO_KIT"), "");
  ::unsetenv("TARVO_KIT");
  EXPECT_EQ(trustedEnvironment("TARVO_KIT"), nullptr);
}

TEST(Threads, KnowTheFirstOfTheirProcessAlsoAfterAFork) {
  const auto child = [] {
    bool isLaterFirst = true;
    std::thread([&] { isLaterFirst = isFirstThread(); }).join();
    return isFirstThread() && !isLaterFirst ? 0 : 1;
  };
  bool isOtherFirst = true;
  int childOfOther = -1;
  std::thread([&] {
    isOtherFirst = isFirstThread();
    childOfOther = test::inFreshProcess(child);
  }).join();
  EXPECT_TRUE(isFirstThread());
  EXPECT_FALSE(isOtherFirst);
  EXPECT_EQ(childOfOther, 0);
  EXPECT_EQ(test::inFreshProcess(child), 0);
}

TEST(Threads, HaveEachANumberOfTheirOwn) {
  std::vector<std::int64_t> numbers(8);
  std::latch told(8);
  std::vector<std::thread> threads;
  for (auto& number : numbers)
    threads.emplace_back([&] {
      number = threadNumber();
      told.arrive_and_wait();
      if (number != threadNumber()) number = 0;
    });
  for (auto& thread : threads) thread.join();
  numbers.push_back(threadNumber());
  EXPECT_GT(*std::min_element(numbers.begin(), numbers.end()), 0);
  EXPECT_EQ(std::set(numbers.begin(), numbers.end()).size(), numbers.size());
}

/// The name of a thread on a system that has the usual function for it; else what is expected of it.
template <class Thread>
std::string nameOf(Thread thread, std::string otherwise) {
  if constexpr (requires(char* text) { pthread_getname_np(thread, text, std::size_t{1}); }) {
    char text[2048] = "";
    if (pthread_getname_np(thread, text, sizeof text) == 0) return text;
  }
  return otherwise;
}

TEST(Threads, TakeTheBeginningOfAnyNameAndKeepThoseOfOthers) {
  const std::string first = nameOf(::pthread_self(), "first");
  for (const std::string& name : {std::string("short"), std::string(1000, 'x'), std::string("a\0b", 3), std::string()})
    std::thread([&] {
      nameThread(name);
      const std::string kept = nameOf(::pthread_self(), name);
      EXPECT_TRUE(name.starts_with(kept)) << kept;
      EXPECT_EQ(kept.empty(), name.empty());
    }).join();
  EXPECT_EQ(nameOf(::pthread_self(), "first"), first);
}

TEST(Random, FillsEachByteAndNoOther) {
  for (const std::size_t size : {0, 1, 7, 255, 256, 257, 65'537, 1 << 20}) {
    std::vector<std::uint8_t> bytes(size + 2), seen(size + 2);
    for (int i = 0; i < 8; ++i) {
      std::fill(bytes.begin(), bytes.end(), 0);
      ASSERT_TRUE(fillWithRandom(std::span(bytes).subspan(1, size)));
      for (std::size_t j = 0; j < bytes.size(); ++j) seen[j] |= bytes[j];
    }
    EXPECT_EQ(seen.front() | seen.back(), 0) << size;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 2) << size;
  }
}

TEST(Random, RepeatsNothingInThreadsNorChildren) {
  const auto drawn = [] {
    std::string text(16, '\0');
    std::vector<std::uint8_t> bytes(text.size());
    EXPECT_TRUE(fillWithRandom(bytes));
    std::copy(bytes.begin(), bytes.end(), text.begin());
    return text;
  };
  std::multiset<std::string> all{drawn()};
  for (int i = 0; i < 3; ++i) {
    all.insert(test::toldByChild([&](int out) { static_cast<void>(!::write(out, drawn().data(), 16)); }));
    std::thread([&] { all.insert(drawn()); }).join();
  }
  EXPECT_EQ(all.size(), std::set(all.begin(), all.end()).size());
}

}  // namespace
}  // namespace tarvo::platform
