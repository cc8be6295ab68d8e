#include "log/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/LogFile.h"
#include "log/LogFolder.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/WorkInFlight.h"
#include "settings/Settings.h"
#include "support/LogDiary.h"
#include "support/NoThreads.h"
#include "support/TempDir.h"

namespace tarvo {
namespace {

using platform::dateSince1970;
using platform::ManualClock;
using platform::UserDefaults;

constexpr double kEndOf2024June15 = 1718495999.999;  // 2024-06-15 23:59:59.999 UTC

class Logging : public testing::Test {
 protected:
  void SetUp() override {
    platform::setHomeDirectory(home.path());
    platform::Clock::install(clock);
    diary.clear();
  }
  void logInto(std::optional<std::string> user, std::int64_t level) {
    Settings::shared().userUUID.set(std::move(user));
    UserDefaults::standard().set("tarvologlevel", level);
  }
  std::filesystem::path path(const std::string& day = "2024-06-15") const {
    return home.path() / "Documents" / ("TarvoLog_" + day + "_U-1_IOS.txt");
  }
  /// The file of a day, after all appends; absent when there is none.
  std::optional<std::string> file(const std::string& day = "2024-06-15") {
    EXPECT_TRUE(platform::WorkInFlight::waitUntilIdle(platform::Seconds(30)));
    auto bytes = platform::readFile(path(day));
    return bytes ? std::optional<std::string>(*bytes) : std::nullopt;
  }
  static std::string header(const std::string& day = "2024-06-15") {
    return "--boundary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"TarvoLog_" + day +
           "_U-1_IOS.txt\"\r\nContent-Type: application/octet-stream\r\n\r\n";
  }

  test::TempDir home;
  test::LogDiary& diary = test::LogDiary::installed();
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(dateSince1970(kEndOf2024June15));
};

TEST_F(Logging, StartsAFileADayWithTheHeaderAloneNamedByTheWeekBasedYear) {
  logInto("U-1", 6);
  Log::debugLog(3, "lost to the header");
  EXPECT_EQ(file(), header());
  Log::debugLog(3, "100% verbatim %s");
  Log::debugLog(7, "no line for a level without a name");
  Log::debugLog(2, "low levels too");
  EXPECT_EQ(file(), header() +
                        "[[2024-06-15T23:59:59.999Z]]:[DEBUG]:100% verbatim %s\n"
                        "[[2024-06-15T23:59:59.999Z]]:[VERBOSE]:low levels too\n");
  // A millisecond later is another day, and so another file.
  clock->advance(platform::Seconds(0.001));
  Log::debugLog(0, "creates the file without a line");
  EXPECT_EQ(file("2024-06-16"), header("2024-06-16"));
  EXPECT_EQ(diary.count("verbatim %s"), 1u);
  clock->advanceTo(dateSince1970(1735516800));  // 2024-12-30 00:00 UTC, in week 1 of 2025
  Log::debug("header");
  Log::debug("line");
  EXPECT_EQ(file("2025-12-30"), header("2025-12-30") + "[[2025-12-30T00:00:00.000Z]]:[DEBUG]:line\n");
}

TEST_F(Logging, IsSwitchedByOneValueAndByTheUser) {
  const struct {
    std::optional<std::string> user;
    std::int64_t level;
    const char* line;
  } cases[] = {{{}, 0, "nobody is known"},
               {"U-1", 0, "0 leaves it off"},
               {"U-1", 10, "10 is off"},
               {"U-1", -3, "header"},
               {"U-1", -3, "negative is on"},
               {"U-1", 0, "0 leaves it on"},
               {"U-1", 10, "10 switches it off again"},
               {{}, 6, "without a user nothing is written"}};
  for (const auto& [user, level, line] : cases) {
    logInto(user, level);
    Log::error(line);
  }
  EXPECT_EQ(file(), header() +
                        "[[2024-06-15T23:59:59.999Z]]:[ERROR]:negative is on\n"
                        "[[2024-06-15T23:59:59.999Z]]:[ERROR]:0 leaves it on\n");
  EXPECT_EQ(diary.lines().size(), 8u);
}

TEST_F(Logging, TakesOnlyTextOfPlainUsersAndNoOtherFileForALog) {
  logInto("../escaped", 6);
  Log::debug("a user that is no plain name");
  EXPECT_FALSE(std::filesystem::exists(home.path() / "escaped_IOS.txt"));
  logInto("U-1", 6);
  Log::debug("header");
  for (const char* text : {"\xC3\x28", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) Log::debug("not UTF-8: ", text);
  EXPECT_EQ(file(), header());
  EXPECT_EQ(diary.count("not UTF-8"), 3u);
  // What happens between a message and its line: the file goes; a link takes its place.
  const auto other = home.path() / "other";
  const std::function<void()> changes[] = {[&] { std::filesystem::remove(path()); },
                                           [&] { std::filesystem::create_symlink(other, path()); }};
  for (const auto& change : changes) {
    std::promise<void> told;
    Log::serialQueue().async([&] { told.get_future().wait(), std::filesystem::remove(path()), change(); });
    Log::debug("not into the host's file, nor into one without a header");
    told.set_value();
    EXPECT_EQ(file().value_or("absent").find("not into"), std::string::npos);
    Log::debug("header");
  }
  EXPECT_EQ(file(), std::nullopt) << "of a link that leads nowhere";
  ASSERT_FALSE(platform::writeFileAtomically(other, "the host's", false));
  Log::debug("not into the host's file either");
  EXPECT_EQ(file(), "the host's");
}

TEST_F(Logging, KeepsTheFolderWithinTheLimitsAndTodaysFileFromGrowingBeyond) {
  logInto("U-1", 6);
  Log::debug("header");  // 2024-06-15
  LogFolder::setInUse([&](const auto& asked) { return asked == path("2024-06-01"); });
  const auto left = [&](StorageLimits limits, int bytes) {
    for (const char* day : {"2024-01-01", "2024-06-01", "2024-06-13", "2024-06-14", "2024-12-30"})  // the last: of 2023
      EXPECT_FALSE(platform::writeFileAtomically(path(day), std::string(1000, '.'), false));
    Settings::shared().storageLimits.set(limits);
    Log::debug(std::string(static_cast<std::size_t>(bytes), 'x'));
    EXPECT_TRUE(file());
    std::string days = platform::concat(droppedLogLines(), ":");
    for (const char* day : {"01-01", "06-01", "06-13", "06-14", "12-30"})
      if (std::filesystem::exists(path(platform::concat("2024-", day)))) days += platform::concat(" ", day);
    return days;
  };
  EXPECT_EQ(left({}, 0), "0: 01-01 06-01 06-13 06-14 12-30");
  EXPECT_EQ(left({.logAge = platform::Seconds(86400)}, 0), "0: 06-01 06-14");
  EXPECT_EQ(left({.logBytes = 4000}, 10), "0: 06-01 06-13 06-14") << "the oldest first, but not what is in use";
  EXPECT_EQ(left({.logBytes = 2500}, 2000), "1: 06-01") << "today's takes no more";
  EXPECT_EQ(left({.logBytes = 8000}, 1000), "1: 01-01 06-01 06-13 06-14 12-30");
}

TEST_F(Logging, GoesOnAfterATimeWithoutThreads) {
  logInto("U-1", 6);
  Log::debug("header");
  {
    const test::NoThreads none;
    for (int i = 0; i < 5'000; ++i) Log::debug("line ", i, std::string(200, '.'));
  }
  Log::debug("afterwards");
  const std::string text = file().value_or("");
  EXPECT_TRUE(text.find("]:line 0..") != text.npos && text.ends_with("]:afterwards\n"));
  EXPECT_LT(text.size(), 300'000U) << "a million characters waited";
  const auto written = std::count(text.begin(), text.end(), '\n') - 5;  // besides the header and the last line
  EXPECT_EQ(Log::linesDropped(), 5'000U - static_cast<std::size_t>(written));
}

}  // namespace
}  // namespace tarvo
