#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>
#include <unistd.h>

#include <fstream>
#include <limits>
#include <thread>

#include "platform/foundation/Activity.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/UserDefaultsChanges.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

fs::path defaultsFile(const fs::path& home) { return home / "Library" / "Preferences" / "defaults.plist"; }

/// Runs `body` as a process of its own would; answers what it answers.
int inFreshProcess(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(UserDefaults, ReadsEachTypeAsAnother) {
  struct Case {
    Value value;
    std::int64_t integer;
    double number;
    bool boolean;
    std::optional<std::string> string;
  };
  const auto most = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {
      {12, 12, 12, true, "12"},
      {0, 0, 0, false, "0"},
      {3.9, 3, 3.9, true, "3.9"},
      {-3.9, -3, -3.9, true, "-3.9"},
      {0.00001, 0, 0.00001, true, "0.00001"},
      {1e20, most, 1e20, true, "100000000000000000000"},
      {true, 1, 1, true, "1"},
      {false, 0, 0, false, "0"},
      {"12abc", 12, 12, true, "12abc"},
      {" 7", 7, 7, true, " 7"},
      {"+3.5e1x", 3, 35, true, "+3.5e1x"},
      {"-007", -7, -7, true, "-007"},
      {"abc", 0, 0, false, "abc"},
      {"inf", 0, 0, false, "inf"},
      {"-", 0, 0, false, "-"},
      {"", 0, 0, false, ""},
      {"99999999999999999999", most, 1e20, true, "99999999999999999999"},
      {"Yes", 0, 0, true, "Yes"},
      {" true", 0, 0, true, " true"},
      {"No", 0, 0, false, "No"},
      {Array{1}, 0, 0, false, std::nullopt},
      {Dictionary{{"a", 1}}, 0, 0, false, std::nullopt},
  };
  const test::TempDir home;
  setHomeDirectory(home.path());
  UserDefaults& defaults = UserDefaults::standard();
  for (const Case& c : cases) {
    defaults.set("key", c.value);
    const std::string shown = c.string.value_or("container");
    EXPECT_EQ(defaults.integer("key"), c.integer) << shown;
    EXPECT_DOUBLE_EQ(defaults.number("key"), c.number) << shown;
    EXPECT_EQ(defaults.boolean("key"), c.boolean) << shown;
    EXPECT_EQ(defaults.string("key"), c.string);
    EXPECT_EQ(defaults.object("key"), c.value) << shown;
  }
  defaults.set("key", nullptr);
  EXPECT_EQ(defaults.integer("key"), 0);
  EXPECT_EQ(defaults.string("key"), std::nullopt);
  EXPECT_EQ(defaults.object("key"), std::nullopt);
}

TEST(UserDefaults, OutliveTheProcessInAFileOfTheUsersOwn) {
  const test::TempDir home;
  setHomeDirectory(home.path() / "new");
  const Dictionary nested = {{"list", Array{1, 2.5, true, "x"}}};
  ASSERT_EQ(inFreshProcess([&] {
              UserDefaults::standard().set("nested", nested);
              UserDefaults::standard().set("gone", 1);
              UserDefaults::standard().remove("gone");
              return 0;
            }),
            0);
  EXPECT_EQ(UserDefaults::standard().object("nested"), Value(nested));
  EXPECT_EQ(UserDefaults::standard().object("gone"), std::nullopt);
  const fs::path file = defaultsFile(home.path() / "new");
  // What a killed write has left holds credentials: it goes with the first thing set, though nothing changes by it.
  ASSERT_TRUE(std::ofstream(file.parent_path() / ".writing-killed"));
  UserDefaults::standard().set("nested", nested);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), fs::directory_iterator()), 1);
}

TEST(UserDefaults, LeaveAFileThatWasCutAloneAndSaySoOnce) {
  const test::TempDir home;
  setHomeDirectory(home.path());
  ASSERT_EQ(inFreshProcess([] {
              UserDefaults::standard().set("number", 5);
              UserDefaults::standard().set("secret", "s&cret");
              return 0;
            }),
            0);
  const fs::path file = defaultsFile(home.path());
  const std::string whole = readFile(file).value();
  const std::size_t contentEnd = whole.find("</dict>") + 7;
  enum Outcome { intact, leftAlone, wrong };
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    const std::string cut = whole.substr(0, length);
    ASSERT_FALSE(writeFileAtomically(file, cut, false));
    const int outcome = inFreshProcess([&] {
      int reports = 0;
      setSystemLogSink([&](std::string_view) { ++reports; });
      UserDefaults& defaults = UserDefaults::standard();
      const bool read = defaults.string("secret") == "s&cret" && defaults.integer("number") == 5;
      const bool empty = !defaults.object("secret") && !defaults.object("number");
      defaults.set("other", 1);
      const bool kept = UserDefaults::standard().integer("other") == 1;
      if (read && kept && reports == 0 && readFile(file).value() != cut) return intact;
      return empty && kept && reports == 1 && readFile(file).value() == cut ? leftAlone : wrong;
    });
    ASSERT_EQ(outcome, length >= contentEnd ? intact : leftAlone) << "cut at " << length;
  }
}

TEST(UserDefaults, KeepInMemoryWhatCannotBeWrittenUntilTheNextChance) {
  const auto clock = std::make_shared<ManualClock>(dateSince1970(0));
  Clock::install(clock);
  const test::TempDir home;
  ASSERT_FALSE(writeFileAtomically(home.path() / "file", "", false));
  setHomeDirectory(home.path() / "file");
  std::vector<std::string> log;
  setSystemLogSink([&](std::string_view line) { log.emplace_back(line); });
  UserDefaults& defaults = UserDefaults::standard();
  EXPECT_TRUE(defaults.synchronize());
  const struct {
    const char* name;
    std::function<void(int)> chance;  ///< is given what was set last
  } cases[] = {
      {"a change", [&](int last) { defaults.set("key", last); }},
      {"asked", [&](int) { EXPECT_TRUE(defaults.synchronize()); }},
      {"the first timer", [&](int) { clock->advance(Seconds(1)); }},
      {"a later timer",
       [&](int) { clock->advance(Seconds(600)); }},  // the pause has grown, but not beyond some minutes
  };
  int value = 5;
  for (const auto& [name, chance] : cases) {
    SCOPED_TRACE(name);
    fs::remove_all(home.path() / "file");
    ASSERT_FALSE(writeFileAtomically(home.path() / "file", "", false));
    log.clear();
    bool told = false;
    defaults.set("key", ++value);
    whenUserDefaultsAreWritten([&] { told = true; });
    EXPECT_EQ(defaults.integer("key"), value);
    ASSERT_EQ(log.size(), 1U);
    EXPECT_NE(log[0].find("cannot be written"), std::string::npos);
    EXPECT_FALSE(defaults.synchronize());
    if (name == std::string("a later timer"))
      for (int second = 0; second < 1000; ++second) {
        clock->advance(Seconds(1));
        ASSERT_TRUE(Activity::waitUntilIdle(Seconds(60)));
      }
    EXPECT_FALSE(told);
    // Everything is written once the cause is gone.
    fs::remove(home.path() / "file");
    chance(value);
    ASSERT_TRUE(Activity::waitUntilIdle(Seconds(60)));
    EXPECT_TRUE(told);
    EXPECT_EQ(log.size(), 1U);
    EXPECT_NE(readFile(defaultsFile(home.path() / "file")).value().find(concat("<integer>", value, "</integer>")),
              std::string::npos);
  }
}

TEST(UserDefaults, KeepWhatAnotherProcessHasSetMeanwhile) {
  const test::TempDir home;
  setHomeDirectory(home.path());
  UserDefaults& defaults = UserDefaults::standard();
  defaults.set("both", "mine");
  defaults.set("gone", 1);
  defaults.remove("gone");
  const Dictionary others = {{"both", "theirs"}, {"secret", "s"}, {"gone", 1}};
  ASSERT_FALSE(writeFileAtomically(defaultsFile(home.path()), serializePropertyList(others), false));
  defaults.set("late", "l");
  const Dictionary expected = {{"both", "mine"}, {"secret", "s"}, {"late", "l"}};
  EXPECT_EQ(*parsePropertyList(*readFile(defaultsFile(home.path()))), Value(expected));
  EXPECT_EQ(defaults.string("secret"), "s");
}

TEST(UserDefaults, SeeEveryWriteWhenThreadsReadAndWriteTogether) {
  const test::TempDir home;
  setHomeDirectory(home.path());
  std::vector<std::thread> threads;
  for (const char* key : {"a", "b", "c"}) {
    threads.emplace_back([key] {
      for (int i = 1; i <= 20; ++i) {
        UserDefaults::standard().set(key, i);
        EXPECT_EQ(UserDefaults::standard().integer(key), i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string file = readFile(defaultsFile(home.path())).value();
  std::size_t finals = 0;
  for (auto at = file.find(">20<"); at != std::string::npos; at = file.find(">20<", at + 1)) ++finals;
  EXPECT_EQ(finals, 3U);
}

}  // namespace
}  // namespace tarvo::platform
