#include <gtest/gtest.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include <fstream>
#include <limits>
#include <tuple>

#include "platform/foundation/Files.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/WorkInFlight.h"
#include "support/FreshProcess.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

fs::path defaultsFile(const fs::path& home) { return home / "Library" / "Preferences" / "defaults.plist"; }

/// Preferences in a home of their own.
class UserDefaultsOfAHome : public testing::Test {
 protected:
  UserDefaultsOfAHome() { setHomeDirectory(home_); }

  const test::TempDir folder_;
  const fs::path home_ = folder_.path() / "new";
  static UserDefaults& defaults() { return UserDefaults::standard(); }  // read from the file at the first touch
};

TEST_F(UserDefaultsOfAHome, ReadsEachTypeAsAnother) {
  const auto most = std::numeric_limits<std::int64_t>::max();
  const std::tuple<Value, std::int64_t, double, bool, std::optional<std::string>> cases[] = {
      {0, 0, 0, false, "0"},
      {-3.9, -3, -3.9, true, "-3.9"},
      {1e20, most, 1e20, true, "100000000000000000000"},
      {" +3.5e1x", 3, 35, true, " +3.5e1x"},
      {"inf", 0, 0, false, "inf"},
      {" Yes", 0, 0, true, " Yes"},
      {Array{1}, 0, 0, false, std::nullopt},
  };
  for (const auto& [value, integer, number, boolean, string] : cases) {
    SCOPED_TRACE(string.value_or("container"));
    defaults().set("key", value);
    EXPECT_EQ(defaults().integer("key"), integer);
    EXPECT_DOUBLE_EQ(defaults().number("key"), number);
    EXPECT_EQ(defaults().boolean("key"), boolean);
    EXPECT_EQ(defaults().string("key"), string);
    EXPECT_EQ(defaults().object("key"), value);
  }
  defaults().set("key", nullptr);
  EXPECT_EQ(defaults().object("key"), std::nullopt);
}

TEST_F(UserDefaultsOfAHome, OutliveTheProcessInAFileOfTheUsersOwn) {
  const Dictionary nested = {{"list", Array{1, 2.5, true, "x"}}};
  test::inFreshProcess([&] {
    defaults().set("nested", nested);
    defaults().set("gone", 1);
    defaults().remove("gone");
    return 0;
  });
  EXPECT_EQ(defaults().object("nested"), Value(nested));
  EXPECT_EQ(defaults().object("gone"), std::nullopt);
  const fs::path file = defaultsFile(home_);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms::owner_all);
}

TEST_F(UserDefaultsOfAHome, KeepInMemoryWhatCannotBeWrittenUntilTheNextChance) {
  const auto clock = std::make_shared<ManualClock>(dateSince1970(0));
  Clock::install(clock);
  std::vector<std::string> log;
  setSystemLogSink([&](std::string_view line) { log.emplace_back(line); });
  EXPECT_TRUE(defaults().synchronize());
  for (const int second : {1, 1000}) {  // the pause grows, but not beyond some minutes
    SCOPED_TRACE(second);
    fs::remove_all(home_);
    std::ofstream(home_).flush();  // a file where the folder should be
    log.clear();
    bool told = false;
    defaults().set("key", second);
    defaults().whenSynchronized([&] { told = true; });
    EXPECT_EQ(defaults().integer("key"), second);
    EXPECT_FALSE(defaults().synchronize());
    for (int passed = 1; passed < second; ++passed) {
      clock->advance(Seconds(1));
      ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(60)));
    }
    EXPECT_FALSE(told);
    fs::remove(home_);
    clock->advance(Seconds(second == 1 ? 1 : 300));
    ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(60)));
    EXPECT_TRUE(told);
    EXPECT_EQ(log.size(), 1U);
    EXPECT_EQ(parsePropertyList(readFile(defaultsFile(home_)).value()).value(), Value(Dictionary{{"key", second}}));
  }
}

TEST_F(UserDefaultsOfAHome, KeepWhatAnotherProcessHasSetMeanwhile) {
  defaults().set("both", "mine");
  defaults().set("gone", 1);
  defaults().remove("gone");
  const Dictionary others = {{"both", "theirs"}, {"secret", "s"}, {"gone", 1}};
  ASSERT_FALSE(writeFileAtomically(defaultsFile(home_), serializePropertyList(others), false));
  defaults().set("late", "l");
  const Dictionary expected = {{"both", "mine"}, {"secret", "s"}, {"late", "l"}};
  EXPECT_EQ(*parsePropertyList(*readFile(defaultsFile(home_))), Value(expected));
  EXPECT_EQ(defaults().string("secret"), "s");
}

}  // namespace
}  // namespace tarvo::platform
