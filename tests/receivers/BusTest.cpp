#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>

#include <tarvo/platform/Clock.h>

#include "receivers/GeoClue.h"
#include "receivers/UPower.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using platform::UIDeviceBatteryState;

/// A program whose standard output is read and whose standard input is written; it goes with the object.
class Program {
 public:
  explicit Program(std::vector<const char*> command) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("no pipes");
    command.push_back(nullptr);
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::execvp(command[0], const_cast<char**>(command.data()));
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    in_ = in[1];
    out_ = out[0];
  }
  ~Program() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
    ::close(in_);
    ::close(out_);
  }
  void say(const std::string& line) { ASSERT_GT(::write(in_, (line + "\n").data(), line.size() + 1), 0); }
  /// Empty at the program's end.
  std::string line() {
    std::string text;
    for (char c = 0; ::read(out_, &c, 1) == 1 && c != '\n';) text += c;
    return text;
  }
  /// Reads up to a line that contains the text; false when there is none.
  bool says(const std::string& text) {
    for (std::string heard = line(); !heard.empty(); heard = line())
      if (heard.find(text) != heard.npos) return true;
    return false;
  }

 private:
  pid_t child_ = -1;
  int in_ = -1, out_ = -1;
};

/// What was told, in order; `wait` takes the next piece.
template <class Told>
class Diary {
 public:
  void add(Told told) {
    std::lock_guard lock(mutex_);
    told_.push_back(std::move(told));
    more_.notify_all();
  }
  Told wait() {
    std::unique_lock lock(mutex_);
    if (!more_.wait_for(lock, 30s, [&] { return read_ < told_.size(); })) throw std::runtime_error("nothing was told");
    return told_[read_++];
  }

 private:
  std::mutex mutex_;
  std::condition_variable more_;
  std::vector<Told> told_;
  std::size_t read_ = 0;
};

struct Unit : Listener {
  Diary<platform::CLLocation> fixes;
  Diary<std::pair<Condition, std::string>> conditions;
  void received(const std::vector<platform::CLLocation>& all) override {
    for (const auto& fix : all) fixes.add(fix);
  }
  void changed(Condition condition, const std::string& line) override { conditions.add({condition, line}); }
};

/// GeoClue and UPower of Python on a bus of their own.
class BusTest : public testing::Test {
 protected:
  void SetUp() override {
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.line().c_str(), 1);
    startServices();
    if (!services_->says("ready")) GTEST_SKIP() << "needs dbus-daemon and python3-dbusmock";
    try {
      receiver_ = openGeoClue("org.tarvo.unit", unit_);
    } catch (const std::invalid_argument& error) {
      GTEST_SKIP() << error.what();
    }
  }
  void startServices() { services_.emplace(std::vector<const char*>{"/usr/bin/python3", TARVO_MOCK}); }
  void startReceiving() {
    receiver_->start(-1);
    ASSERT_EQ(unit_.conditions.wait().first, Condition::searching);
    services_->say("fix(1, Latitude=48.0, Longitude=11.0, Accuracy=5.0)");
    ASSERT_EQ(unit_.conditions.wait().first, Condition::receiving);
    unit_.fixes.wait();
  }

  Program bus_{{"dbus-daemon", "--session", "--nofork", "--print-address"}};
  std::optional<Program> services_;
  Unit unit_;
  std::unique_ptr<Receiver> receiver_;
};

using GeoClue = BusTest;
using UPowerWatch = BusTest;

TEST_F(GeoClue, GivesWhatIsKnownOfAPlace) {
  startReceiving();
  const auto at = [](double seconds) { return platform::dateSince1970(seconds); };
  const std::pair<const char*, platform::CLLocation> places[] = {
      {"Latitude=48.5, Longitude=-11.25, Accuracy=7.5, Altitude=520.5, Speed=1.5, Heading=270.0, "
       "Timestamp=at(1700000000, 250000)",
       {{48.5, -11.25}, 520.5, 7.5, -1, 270, 1.5, at(1700000000.25), {}}},
      {"Latitude=-48.0, Longitude=11.0, Accuracy=5000.0, Altitude=-1.7976931348623157e+308, Speed=-1.0, Heading=-1.0, "
       "Timestamp=at(1600000000, 0)",  // older than the one before: a place remembered
       {{-48, 11}, 0, 5000, -1, -1, -1, at(1600000000), {}}},
      {"Latitude=1.0, Longitude=2.0, Accuracy=0.0, Timestamp=at(1600000001, 0)",  // that of a good satellite fix
       {{1, 2}, 0, 5, -1, -1, -1, at(1600000001), {}}},
  };
  int number = 1;
  for (const char* invalid :
       {"Latitude=95.0, Longitude=11.0, Accuracy=5.0", "Latitude=48.0, Longitude=11.0, Accuracy=-1.0",
        "Latitude=float('nan'), Longitude=11.0, Accuracy=5.0", "Description=''"})
    services_->say("fix(" + std::to_string(++number) + ", " + invalid + ")");
  for (const auto& [values, fix] : places) {
    services_->say("fix(" + std::to_string(++number) + ", " + values + ")");
    EXPECT_EQ(unit_.fixes.wait(), fix) << values;
  }
}

TEST_F(GeoClue, APlaceWithoutATimeIsOfNow) {
  startReceiving();
  const auto before = platform::Clock::current()->now();

  services_->say("fix(2, Latitude=48.0, Longitude=11.0, Accuracy=5.0, Timestamp=at(0, 0))");

  EXPECT_GE(unit_.fixes.wait().timestamp, before);
}

TEST_F(GeoClue, AsksUnderItsNameForTheBestAndLeavesWhenNobodyNeedsFixes) {
  receiver_->start(-1);
  for (const char* step :
       {"GetClient", "DesktopId", "RequestedAccuracyLevel", "DistanceThreshold", "TimeThreshold", "Start"})
    EXPECT_TRUE(services_->says(step)) << step;
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
  services_->say("print(*objects[CLIENT].props[GEOCLUE + '.Client'].values(), flush=True)");
  EXPECT_EQ(services_->line(), "org.tarvo.unit True 0 1 8");

  receiver_->stop();

  EXPECT_TRUE(services_->says("Stop"));
  EXPECT_EQ(unit_.conditions.wait().first, Condition::resting);
}

TEST_F(GeoClue, TellsWhoCouldAllowItAndTakesUpWhatIsAllowedLater) {
  services_->say("started = 'raise dbus.DBusException(\"no\", name=\"org.freedesktop.DBus.Error.AccessDenied\")'");
  services_->say("print('set', flush=True)");
  EXPECT_TRUE(services_->says("set"));
  receiver_->start(-1);
  const auto [condition, line] = unit_.conditions.wait();
  EXPECT_EQ(condition, Condition::refused);
  EXPECT_NE(line.find("[org.tarvo.unit] with allowed=false"), line.npos) << line;

  services_->say("started = 'pass'");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);

  services_->say("change(CLIENT, GEOCLUE + '.Client', Active=dbus.Boolean(False))");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::refused);
  services_->say("change(CLIENT, GEOCLUE + '.Client', Active=dbus.Boolean(True))");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
}

TEST_F(GeoClue, TakesUpAServiceThatVanishedAndEndsAtOnceWithout) {
  startReceiving();
  services_.reset();
  const auto [condition, line] = unit_.conditions.wait();
  EXPECT_EQ(condition, Condition::lost) << line;

  startServices();
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
  services_->say("fix(2, Latitude=1.0, Longitude=2.0, Accuracy=3.0)");
  EXPECT_EQ(unit_.fixes.wait().coordinate, (platform::CLLocationCoordinate2D{1, 2}));

  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
  services_.reset();
  for (const auto last : {Condition::receiving, Condition::lost}) EXPECT_EQ(unit_.conditions.wait().first, last);
  const auto before = std::chrono::steady_clock::now();
  receiver_.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
  EXPECT_EQ(unit_.conditions.wait().first, Condition::resting);
}

TEST_F(UPowerWatch, TellsEachStateAndLevelOnceAndWhenThereIsNoneAnyMore) {
  Diary<std::pair<UIDeviceBatteryState, double>> batteries;
  const auto watch = watchUPower([&](auto state, double level) { batteries.add({state, level}); });
  const auto say = [&](int state, int percent) {
    services_->say("change(BATTERY, 'org.freedesktop.UPower.Device', IsPresent=dbus.Boolean(True), State=dbus.UInt32(" +
                   std::to_string(state) + "), Percentage=dbus.Double(" + std::to_string(percent) + "))");
  };
  constexpr std::pair<int, UIDeviceBatteryState> states[] = {
      {1, UIDeviceBatteryState::charging}, {2, UIDeviceBatteryState::unplugged}, {3, UIDeviceBatteryState::unplugged},
      {4, UIDeviceBatteryState::full},     {5, UIDeviceBatteryState::charging},  {6, UIDeviceBatteryState::unplugged},
      {0, UIDeviceBatteryState::unknown}};
  int percent = 50;
  for (const auto& [state, told] : states) {
    say(state, ++percent);
    say(state, percent);
    EXPECT_EQ(batteries.wait(), std::pair(told, percent / 100.0)) << state;
  }
  services_.reset();
  EXPECT_EQ(batteries.wait(), std::pair(UIDeviceBatteryState::unknown, -1.0));
}

}  // namespace
}  // namespace tarvo::receivers
