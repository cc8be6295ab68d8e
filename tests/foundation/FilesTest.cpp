#include "platform/foundation/Files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "platform/foundation/Bundle.h"
#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

class HostFolder : public testing::Test {
 protected:
  HostFolder() {
    setHomeDirectory(home_.path());
    setSystemLogSink([this](std::string_view line) { log_.emplace_back(line); });
  }
  ~HostFolder() override { setSystemLogSink({}); }

  const test::TempDir home_;
  std::vector<std::string> log_;
};

using BundleOfTheHost = HostFolder;
using EnvironmentOfTheHost = HostFolder;

TEST_F(BundleOfTheHost, IsWhatTheHostSaysInCodeAndNotItsFile) {
  std::ofstream(home_.path() / "Info.plist") << "<plist><dict><key>N</key><string>5</string></dict></plist>";
  const Dictionary info{{"TarvoApiKey", "k"}};
  EXPECT_TRUE(setInfoDictionary(info));
  EXPECT_EQ(Bundle::main().infoDictionary(), info);
  EXPECT_FALSE(setInfoDictionary({}) || setInfoPropertyList("other.plist")) << "too late";
  EXPECT_TRUE(setInfoDictionary(info)) << "the same";
}

TEST_F(EnvironmentOfTheHost, MakesTheDocumentDirectoryForItsUserAlone) {
  EXPECT_EQ(documentDirectories(), std::vector{home_.path() / "Documents"});
  EXPECT_FALSE(setHomeDirectory("/other")) << "too late";
  EXPECT_TRUE(setHomeDirectory(home_.path())) << "the same";
  EXPECT_EQ(fs::status(home_.path() / "Documents").permissions(), fs::perms::owner_all);
  setDocumentDirectories({home_.path() / "logs", home_.path() / "a" / "b"});
  EXPECT_EQ(documentDirectories().back(), home_.path() / "a" / "b");
  for (const char* made : {"logs", "a/b"}) EXPECT_TRUE(fs::is_directory(home_.path() / made));
  EXPECT_TRUE(Bundle::main().infoDictionary().empty() && log_.empty()) << "a host needs no property list";
}

TEST(Environment, FollowsTheUsersDataDirectoryUnlessAHomeIsSet) {
  ::setenv("XDG_DATA_HOME", "/data", 1);
  EXPECT_EQ(homeDirectory(), "/data/test_foundation");
  ::setenv("XDG_DATA_HOME", "relative", 1);
  ::setenv("HOME", "/users/u", 1);
  EXPECT_EQ(homeDirectory(), "/users/u/.local/share/test_foundation");
}

TEST_F(EnvironmentOfTheHost, ClearsWhatKilledWritesHaveLeftAndNothingElse) {
  const auto make = [&](const char* name) { return ::open((home_.path() / name).c_str(), O_CREAT | O_RDWR, 0600); };
  ::close(make(".writing-killed"));
  for (const char* name : {"writing-of-the-host", ".writing-of-the-host"}) ::close(make(name));
  const int live = make(".writing-lively");
  ASSERT_EQ(::flock(live, LOCK_EX), 0);
  ASSERT_EQ(::mkfifo((home_.path() / ".writing-a-pipe").c_str(), 0600), 0);
  EXPECT_FALSE(writeFileAtomically(home_.path() / "file", "x", false));
  std::set<std::string> left;
  for (const auto& entry : fs::directory_iterator(home_.path())) left.insert(entry.path().filename());
  EXPECT_EQ(left, (std::set<std::string>{".writing-a-pipe", ".writing-lively", ".writing-of-the-host", "file",
                                         "writing-of-the-host"}));
  ::close(live);
}

TEST(FileLock, IsWaitedForUntilTheOtherLetsGo) {
  const test::TempDir dir;
  const auto file = dir.path() / "l";
  FileLock first(file), second(file);
  ASSERT_TRUE(first.tryLock().value());
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_FALSE(second.lock(std::chrono::milliseconds(0)).value());
  EXPECT_EQ(second.holder(), concat("test_foundation (process ", ::getpid(), ")"));
  int looks = 0;
  const auto letGo = [&] {
    if (++looks == 3) first.unlock();
    return looks > 3;
  };
  EXPECT_TRUE(second.lock(std::chrono::hours(1), letGo).value());
  EXPECT_EQ(looks, 3);
  EXPECT_FALSE(first.lock(std::chrono::hours(1), [] { return true; }).value()) << "given up";
  for (const char* text : {"", "x", "7", "7 a\nb", "7 a\x1b[2J", "99999999999999999999 a"}) {
    std::ofstream(file) << text;
    EXPECT_EQ(first.holder(), text == std::string_view("7 a\nb") ? "a (process 7)" : "another process") << text;
  }
  EXPECT_FALSE(FileLock(dir.path() / "missing" / "l").tryLock());
}

}  // namespace
}  // namespace tarvo::platform
