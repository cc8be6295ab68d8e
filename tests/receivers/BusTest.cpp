#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include <tarvo/platform/Clock.h>

#include "receivers/GeoClue.h"
#include "receivers/UPower.h"

namespace tarvo::receivers {
namespace {

using namespace std::chrono_literals;
using platform::UIDeviceBatteryState;

/// The services of mock.py; they go with the object, and with the process should that be killed.
class Services {
 public:
  Services() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(ends[1], STDIN_FILENO);
      ::dup2(ends[1], STDOUT_FILENO);
      ::execl("/usr/bin/python3", "python3", TARVO_MOCK, nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    channel_ = ends[0];
  }
  ~Services() {
    ::close(channel_);
    ::waitpid(child_, nullptr, 0);
  }
  void run(const std::string& python) const {
    const std::string line = python + "\n";
    ::send(channel_, line.data(), line.size(), MSG_NOSIGNAL);
  }
  /// The next line that contains the text; empty when there is none.
  std::string line(const std::string& text = "") const {
    std::string heard;
    for (char c = 0; ::read(channel_, &c, 1) == 1;) {
      if (c != '\n')
        heard += c;
      else if (heard.find(text) != heard.npos)
        return heard;
      else
        heard.clear();
    }
    return {};
  }

 private:
  pid_t child_ = -1;
  int channel_ = -1;
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

class BusTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string address = services_.line();
    if (address.empty()) GTEST_SKIP() << "needs dbus-daemon and python3-dbusmock";
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    try {
      receiver_ = openGeoClue("org.tarvo.unit", unit_);
    } catch (const std::invalid_argument& error) {
      GTEST_SKIP() << error.what();
    }
  }
  void startReceiving() {
    receiver_->start(-1);
    ASSERT_EQ(unit_.conditions.wait().first, Condition::searching);
    services_.run("fix(1, Latitude=48.0, Longitude=11.0, Accuracy=5.0)");
    ASSERT_EQ(unit_.conditions.wait().first, Condition::receiving);
    unit_.fixes.wait();
  }

  Services services_;
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
    services_.run("fix(" + std::to_string(++number) + ", " + invalid + ")");
  for (const auto& [values, fix] : places) {
    services_.run("fix(" + std::to_string(++number) + ", " + values + ")");
    EXPECT_EQ(unit_.fixes.wait(), fix) << values;
  }
  const auto before = platform::Clock::current()->now();
  services_.run("fix(99, Latitude=48.0, Longitude=11.0, Accuracy=5.0, Timestamp=at(0, 0))");
  EXPECT_GE(unit_.fixes.wait().timestamp, before);
}

TEST_F(GeoClue, AsksUnderItsNameForTheBestAndLeavesWhenNobodyNeedsFixes) {
  receiver_->start(-1);
  for (const char* step :
       {"GetClient", "DesktopId", "RequestedAccuracyLevel", "DistanceThreshold", "TimeThreshold", "Start"})
    EXPECT_NE(services_.line(step), "") << step;
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
  services_.run("print(*objects[CLIENT].props[GEOCLUE + '.Client'].values(), flush=True)");
  EXPECT_EQ(services_.line(), "org.tarvo.unit True 0 1 8");

  receiver_->stop();

  EXPECT_NE(services_.line("Stop"), "");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::resting);
}

TEST_F(GeoClue, TellsWhoCouldAllowItAndTakesUpWhatIsAllowedLater) {
  services_.run("started = 'raise dbus.DBusException(\"no\", name=\"org.freedesktop.DBus.Error.AccessDenied\")'");
  services_.run("print('set', flush=True)");
  EXPECT_EQ(services_.line("set"), "set");
  receiver_->start(-1);
  const auto [condition, line] = unit_.conditions.wait();
  EXPECT_EQ(condition, Condition::refused);
  EXPECT_NE(line.find("[org.tarvo.unit] with allowed=false"), line.npos) << line;

  services_.run("started = 'pass'");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);

  services_.run("objects[CLIENT].UpdateProperties('', {'Active': dbus.Boolean(False)})");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::refused);
  services_.run("objects[CLIENT].UpdateProperties('', {'Active': dbus.Boolean(True)})");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
}

TEST_F(GeoClue, TakesUpAServiceThatVanishedAndEndsAtOnceWithout) {
  startReceiving();
  services_.run("bus.release_name(GEOCLUE)");
  const auto [condition, line] = unit_.conditions.wait();
  EXPECT_EQ(condition, Condition::lost) << line;

  services_.run("bus.request_name(GEOCLUE)");
  EXPECT_EQ(unit_.conditions.wait().first, Condition::searching);
  services_.run("fix(2, Latitude=1.0, Longitude=2.0, Accuracy=3.0)");
  EXPECT_EQ(unit_.fixes.wait().coordinate, (platform::CLLocationCoordinate2D{1, 2}));

  services_.run("exec(END)");
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
    services_.run("objects[BATTERY].UpdateProperties('', {'IsPresent': dbus.Boolean(True), 'State': dbus.UInt32(" +
                  std::to_string(state) + "), 'Percentage': dbus.Double(" + std::to_string(percent) + ")})");
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
  services_.run("bus.release_name('org.freedesktop.UPower')");
  EXPECT_EQ(batteries.wait(), std::pair(UIDeviceBatteryState::unknown, -1.0));
  say(4, 100);
  services_.run("bus.request_name('org.freedesktop.UPower')");
  EXPECT_EQ(batteries.wait(), std::pair(UIDeviceBatteryState::full, 1.0));
}

}  // namespace
}  // namespace tarvo::receivers
