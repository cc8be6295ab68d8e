#include "log/Log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include "platform/foundation/Activity.h"
#include "platform/foundation/Files.h"
#include "settings/Settings.h"
#include "support/LogDiary.h"
#include "support/TempDir.h"

/// The paths of what was flushed, in order.
static std::vector<std::string>& flushed() {
  static auto* paths = new std::vector<std::string>;
  return *paths;
}

/// Takes the place of the system's for the whole program.
extern "C" int fsync(int descriptor) {
  flushed().push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).string());
  return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

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
    Settings::shared().setUserUUID(std::move(user));
    UserDefaults::standard().set("tarvologlevel", level);
  }
  /// The file of a day, after all appends; absent when there is none.
  std::optional<std::string> file(const std::string& day, const std::string& user = "U-1") {
    EXPECT_TRUE(platform::Activity::waitUntilIdle(platform::Seconds(30)));
    auto bytes = platform::readFile(home.path() / "Documents" / ("TarvoLog_" + day + "_" + user + "_IOS.txt"));
    if (!bytes) return std::nullopt;
    return *bytes;
  }
  static std::string header(const std::string& day) {
    return "--boundary\r\nContent-Disposition: form-data; name=\"file\"; filename=\"TarvoLog_" + day +
           "_U-1_IOS.txt\"\r\nContent-Type: application/octet-stream\r\n\r\n";
  }

  test::TempDir home;
  test::LogDiary& diary = test::LogDiary::installed();
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(dateSince1970(kEndOf2024June15));
};

TEST_F(Logging, StartsTheDaysFileWithTheHeaderAloneAndAppendsFromTheSecondMessage) {
  logInto("U-1", 6);
  Log::debugLog(3, "lost to the header");
  EXPECT_EQ(file("2024-06-15"), header("2024-06-15"));
  Log::debugLog(3, "100% verbatim %s");
  Log::debugLog(7, "no line for a level without a name");
  Log::debugLog(2, "low levels too");
  EXPECT_EQ(file("2024-06-15"), header("2024-06-15") +
                                    "[[2024-06-15T23:59:59.999Z]]:[DEBUG]:100% verbatim %s\n"
                                    "[[2024-06-15T23:59:59.999Z]]:[VERBOSE]:low levels too\n");
  // A millisecond later is another day, and so another file.
  clock->advance(platform::Seconds(0.001));
  Log::debugLog(0, "creates the file without a line");
  EXPECT_EQ(file("2024-06-16"), header("2024-06-16"));
  EXPECT_EQ(diary.count("verbatim %s"), 1u);
}

TEST_F(Logging, IsSwitchedByOneValueAndByTheUser) {
  Log::debug("nobody is known and nothing is set");
  logInto("U-1", 0);
  Log::debug("0 leaves it off");
  logInto("U-1", 10);
  Log::debug("10 is off");
  EXPECT_EQ(file("2024-06-15"), std::nullopt);
  logInto("U-1", -3);
  Log::debug("header");
  Log::error("negative is on");
  logInto("U-1", 0);
  Log::error("0 leaves it on");
  logInto("U-1", 10);
  Log::error("10 switches it off again");
  logInto(std::nullopt, 6);
  Log::error("without a user nothing is written");
  EXPECT_EQ(file("2024-06-15"), header("2024-06-15") +
                                    "[[2024-06-15T23:59:59.999Z]]:[ERROR]:negative is on\n"
                                    "[[2024-06-15T23:59:59.999Z]]:[ERROR]:0 leaves it on\n");
  EXPECT_EQ(diary.lines().size(), 8u);
}

TEST_F(Logging, NamesTheFilesAroundNewYearByTheWeekBasedYear) {
  clock->advanceTo(dateSince1970(1735516800));  // 2024-12-30 00:00 UTC, in week 1 of 2025
  logInto("U-1", 6);
  Log::debug("header");
  Log::debug("line");
  EXPECT_EQ(file("2025-12-30"), header("2025-12-30") + "[[2025-12-30T00:00:00.000Z]]:[DEBUG]:line\n");
}

TEST_F(Logging, NeverBringsBackADeletedFileHeadlessAndKeepsBadTextAndNamesOut) {
  logInto("U-1", 6);
  Log::debug("header");
  const auto path = home.path() / "Documents" / "TarvoLog_2024-06-15_U-1_IOS.txt";
  // The append is held back until the file is gone.
  Log::serialQueue().async([&] { std::filesystem::remove(path); });
  Log::debug("finds the file, appends after it is gone");
  EXPECT_EQ(file("2024-06-15").value_or("absent").find("appends"), std::string::npos);
  Log::debug("not UTF-8: \xC3\x28 \xED\xA0\x80");
  Log::debug("not UTF-8 either: \xF4\x90\x80\x80");
  EXPECT_EQ(file("2024-06-15"), header("2024-06-15"));
  EXPECT_EQ(diary.count("not UTF-8"), 2u);
  logInto("../escaped", 6);
  Log::debug("a user that is no plain name");
  EXPECT_FALSE(std::filesystem::exists(home.path() / "escaped_IOS.txt"));
}

TEST_F(Logging, TakesOnlyARegularFileForALog) {
  logInto("U-1", 6);
  const auto path = home.path() / "Documents" / "TarvoLog_2024-06-15_U-1_IOS.txt";
  std::filesystem::create_directories(path.parent_path());
  const auto other = home.path() / "other";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Log::debug("a pipe without a reader");
  ASSERT_TRUE(platform::Activity::waitUntilIdle(platform::Seconds(10)));
  EXPECT_TRUE(std::filesystem::is_fifo(path));
  for (const bool dangles : {true, false}) {
    std::filesystem::remove(path);
    std::filesystem::create_symlink(other, path);
    ASSERT_TRUE(dangles || !platform::writeFileAtomically(other, "the host's", false));
    Log::debug("header");
    Log::debug("line");
    ASSERT_TRUE(platform::Activity::waitUntilIdle(platform::Seconds(10)));
    EXPECT_TRUE(std::filesystem::is_symlink(path));
  }
  EXPECT_EQ(platform::readFile(other).value(), "the host's");
  // One that takes the file's place between the message and its line.
  std::filesystem::remove(path);
  Log::debug("header");
  Log::serialQueue().async([&] {
    std::filesystem::remove(path);
    std::filesystem::create_symlink(other, path);
  });
  Log::debug("not into the host's file");
  ASSERT_TRUE(platform::Activity::waitUntilIdle(platform::Seconds(10)));
  EXPECT_EQ(platform::readFile(other).value(), "the host's");
}

TEST_F(Logging, FlushesTheHeaderAndItsNameBeforeLinesFollow) {
  logInto("U-1", 6);
  flushed().clear();
  Log::debug("header");
  ASSERT_EQ(flushed().size(), 2u);
  EXPECT_NE(flushed()[0].find("Documents/.writing-"), std::string::npos);
  EXPECT_TRUE(flushed()[1].ends_with("/Documents"));
  Log::debug("line");
  EXPECT_TRUE(file("2024-06-15")->ends_with("line\n"));
  EXPECT_EQ(flushed().size(), 2u) << "no line waits for the disk";
}

TEST_F(Logging, KeepsTheOrderOfEachThreadsLines) {
  logInto("U-1", 6);
  Log::debug("header");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) Log::debug("thread", t, " line ", i, ";");
    });
  for (auto& thread : threads) thread.join();
  const std::string text = file("2024-06-15").value_or("");
  for (int t = 0; t < 4; ++t) {
    std::size_t at = 0;
    for (int i = 0; i < 50; ++i) {
      at = text.find(platform::concat("thread", t, " line ", i, ";"), at);
      ASSERT_NE(at, std::string::npos) << "thread " << t << " line " << i;
    }
  }
}

TEST(UploadChannel, IsFreeWhenReleasedOrHeldForExactly180Seconds) {
  platform::Clock::install(std::make_shared<ManualClock>(dateSince1970(1000)));
  UploadChannel channel;
  EXPECT_TRUE(channel.tryTake(dateSince1970(1000)).taken);
  const auto young = channel.tryTake(dateSince1970(1179.999));
  EXPECT_FALSE(young.taken);
  EXPECT_TRUE(young.wasLocked);
  EXPECT_FALSE(channel.tryTake(dateSince1970(500)).taken) << "a clock that was set back does not make it stale";
  EXPECT_TRUE(channel.tryTake(dateSince1970(1180)).taken);
  EXPECT_FALSE(channel.tryTake(dateSince1970(1359.9)).taken) << "the takeover starts the time anew";
  channel.release();
  EXPECT_TRUE(channel.tryTake(dateSince1970(1181)).taken);
}

TEST(UploadChannel, GoesToOneOfManyThreads) {
  UploadChannel channel;
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&] { taken += channel.tryTake(platform::Clock::current()->now()).taken ? 1 : 0; });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), 1);
}

TEST(Settings, RefuseAddressesAndClientIdsThatCannotServe) {
  test::LogDiary& diary = test::LogDiary::installed();
  Settings& settings = Settings::shared();
  const struct {
    const char* url;
    bool allowPlain, accepted;
  } cases[] = {
      {"https://backend.example/api", false, true},
      {"http://127.0.0.1:8080/api", false, true},
      {"http://[::1]:8080/api", false, true},
      {"http://localhost/api", false, true},
      {"http://backend.example/api", false, false},
      {"http://backend.example/api", true, true},
      {"http://127.0.0.1.evil.example/", false, false},
      {"ftp://backend.example", true, false},
      {"backend.example/api", true, false},
      {"https://user:pw@backend.example", false, false},
      {"https://backend.example/api?x=1", false, false},
      {"", true, false},
      {"https://bad host/", true, false},
  };
  for (const auto& [url, allowPlain, accepted] : cases) {
    diary.clear();
    EXPECT_EQ(settings.setRemoteWebServerURL(url, allowPlain), accepted) << url;
    EXPECT_EQ(diary.count("backend address refused"), accepted ? 0u : 1u) << url;
  }
  EXPECT_TRUE(settings.setClientID("client-1_A.b"));
  EXPECT_FALSE(settings.setClientID("two words"));
  EXPECT_FALSE(settings.setClientID("../users"));
  EXPECT_EQ(settings.clientID(), "client-1_A.b");
}

}  // namespace
}  // namespace tarvo
