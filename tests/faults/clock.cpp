// The wall clock is set, by a second to ten years, in the midst of each stage of the work, and set right again; or the
// machine is suspended. Nothing crashes, spins, is lost or comes twice but as the documents say.

#include "faults/Rows.h"
#include "location/Delivery.h"
#include "log/LogFile.h"

namespace tarvo::faults {
namespace {

using platform::Seconds;

/// Runs with the host's clock, or with the machine's, and shows what somebody has set.
struct SetClock final : platform::Clock {
  platform::Date now() const override { return (running ? running->now() : real()) + Seconds(offset.load()); }
  Seconds monotonic() const override {
    ++looks;
    return running ? running->monotonic() : real().time_since_epoch();
  }
  std::optional<Seconds> realTimeUntil(platform::Date date) const override {
    return running ? std::nullopt : std::optional(date - now());
  }
  static platform::Date real() { return platform::Date(std::chrono::steady_clock::now().time_since_epoch()); }

  std::shared_ptr<platform::ManualClock> running;
  std::atomic<double> offset = 0;
  mutable std::atomic<int> looks = 0;
};

std::shared_ptr<SetClock> setClock(std::shared_ptr<platform::ManualClock> running) {
  auto clock = std::make_shared<SetClock>();
  clock->running = std::move(running);
  platform::Clock::install(clock);
  return clock;
}

/// A device whose clock is set between its first attempt, which has found no identity and keeps the channel for 180 s,
/// and the next. A clock that is set back keeps it for as long as it was set back besides.
void registration(Host& host, double seconds) {
  const auto clock = setClock(host.clock);
  host.startBackend();
  host.backend.faults().hangNext("users", 2);
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  ASSERT_TRUE(host.backend.faults().waitUntilHanging(2, std::chrono::seconds(10)));
  clock->offset = seconds;
  host.backend.faults().release();
  host.collect(1);
  const double held = 180 - 1 - seconds;  // one second has passed with the fix
  for (const double wait : {held - 0.5, 0.5}) {
    host.upload();
    EXPECT_EQ(host.backend.holdings().positions, held > 0 ? 0 : 1) << wait;
    host.clock->advance(Seconds(std::max(0.0, wait)));
  }
  host.upload();
  host.expectEachIndexOnce(1);
}

/// Each line of a log lies in the file of its day, behind the header.
void expectLinesInTheirFiles(const Host& host) {
  std::size_t lines = 0;
  for (const auto& entry : std::filesystem::directory_iterator(host.home.path() / "Documents")) {
    const std::string name = entry.path().filename();
    if (!name.starts_with("TarvoLog_20")) continue;
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);)
      if (line.starts_with("[[")) {
        ++lines;
        EXPECT_EQ(line.substr(2, 10), name.substr(9, 10));
      }
  }
  EXPECT_GT(lines, 100u);
}

/// What is under way while `step` sets the clock; `back` sets it right.
void stages(Host& host, const std::function<void()>& step, const std::function<void()>& back, double seconds) {
  Tarvo tarvo = host.online(Tarvo::BACKEND_GEOPROFILE);
  platform::UserDefaults::standard().set("tarvologlevel", 6);
  auto& faults = host.backend.faults();
  std::int64_t stored = tarvo.syncStatus().stored;
  const auto hang = [&](const char* path, const std::function<void()>& start) {
    faults.hangNext(path, 1);
    start();
    EXPECT_TRUE(faults.waitUntilHanging(1, std::chrono::seconds(10))) << path;
    step();
  };
  const std::pair<const char*, std::function<void()>> all[] = {
      {"intake",
       [&] {
         for (int i = 0; i < 3; ++i) platform::LocationService::shared().deliver({Host::fixAt(i, Host::kStart)});
         step();
         stored += 3;
       }},
      {"upload", [&] { hang("positions", [&] { host.engine().sendDataInBatchToRemoteWebServer(); }); }},
      {"acknowledgement",
       [&] {
         std::atomic<bool> due = true;
         host.diary.onMessage([&](std::string_view line) {
           if (line.starts_with("Locations:markLocationAsSentUntilIndex") && due.exchange(false)) step();
         });
         host.upload();
         host.diary.onMessage({});
         EXPECT_FALSE(due);
       }},
      {"download", [&] { hang("predictions", [] { NetworkManager().getNextTrip(); }); }},
      {"log upload", [&] {
         const auto file = host.home.path() / "Documents/TarvoLog_2020-01-01_U_IOS.txt";
         (void)logFileNamed(file.filename().native());  // makes it
         hang("uplog", [&] { tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}}); });
         ++stored;  // the event of the push
       }}};
  for (const auto& [stage, begin] : all) {
    SCOPED_TRACE(stage);
    host.collect(2);
    stored += 2;
    begin();
    platform::LocationService::shared().deliver({Host::fixAt(-1.0 * stored, Host::kStart)});
    faults.release();
    host.waitUntilIdle();
    back();
    host.drive(1);
    stored += 2;
    host.settle();
    EXPECT_EQ(tarvo.syncStatus().stored, stored);
    const auto holdings = host.backend.holdings();
    EXPECT_TRUE(holdings.positions == stored && holdings.missing == 0);
    // A clock that leaps takes a channel in use for a stale one: what awaits its answer is posted once more.
    EXPECT_LE(holdings.repeats, seconds >= 180 ? holdings.positions : 0);
  }
  EXPECT_FALSE(std::filesystem::exists(host.home.path() / "Documents/TarvoLog_2020-01-01_U_IOS.txt"));
  EXPECT_GE(host.backend.holdings().logs, 1);
  expectLinesInTheirFiles(host);
}

/// Spans of the location service are the monotonic clock's.
void location(Host& host, double seconds) {
  const auto clock = setClock(host.clock);
  platform::DiaryDelegate delegate;
  platform::CLLocationManager manager;
  manager.setDelegate(&delegate);
  const auto fix = [](int place) { platform::LocationService::shared().deliver({platform::fixAt(place)}); };
  fix(0);
  EXPECT_EQ(delegate.read(), platform::Diary{"status 3"});
  manager.startMonitoring({"home", {0, 0}, 100});
  manager.startMonitoringSignificantLocationChanges();
  manager.requestLocation();
  EXPECT_EQ(delegate.read(), (platform::Diary{"watching home", "fixes 0"}));
  const std::tuple<double, std::optional<int>, platform::Diary> steps[] = {
      {9, {}, {}},
      {1, {}, {"kCLErrorDomain 0"}},  // the request ends after ten seconds
      {90, 50000, {}},
      {19, 50000, {}},
      {1, 50000, {"out home"}},
      {179, 50000, {}},
      {1, 50000, {"fixes 50000"}},  // 300 s after the first
  };
  for (const auto& [later, place, told] : steps) {
    SCOPED_TRACE(later);
    clock->offset = clock->offset == 0 ? seconds : 0;
    host.clock->advance(Seconds(later));
    if (place) fix(*place);
    EXPECT_EQ(delegate.read(), told);
  }
}

/// On a clock that runs by itself a timer fires in time, and its thread wakes no more often than it has to.
void timer(Host&, double seconds) {
  const auto clock = setClock(nullptr);
  platform::DiaryDelegate delegate;
  platform::CLLocationManager manager;
  manager.setDelegate(&delegate);
  platform::LocationService::shared().setRules({.requestTimeout = Seconds(0.3)});
  delegate.read();
  manager.requestLocation();
  clock->looks = 0;
  clock->offset = seconds;
  for (int i = 0; i < 100 && clock->looks < 1000; ++i) {
    platform::MainQueue::main().runFor(Seconds(0.05));
    if (delegate.read() != platform::Diary{"kCLErrorDomain 0"}) continue;
    EXPECT_LT(clock->looks, 20);
    return;
  }
  ADD_FAILURE() << "the request did not end; looks at the clock: " << clock->looks;
}

std::vector<Row> rows() {
  constexpr double kHour = 3600, kDay = 86400, kTenYears = 3652 * kDay, kUntilMidnight = 14 * kHour - 180.25 - 5;
  std::vector<Row> all;
  for (const double by : {1.0, kHour, kDay, kTenYears, -1.0, -kHour, -kDay, -kTenYears}) {
    const auto add = [&](const std::string& name, std::function<void(Host&, double)> body) {
      all.push_back({platform::concat(name, ", clock set by ", by, " s"), [=](Host& host) { body(host, by); }});
    };
    add("registration", registration);
    add("location", location);
    add("timer", timer);
    for (const double later : {0.0, kUntilMidnight})
      add(later > 0 ? "midnight" : "stages", [later](Host& host, double seconds) {
        host.clock->advance(Seconds(later));
        const auto clock = setClock(host.clock);
        stages(
            host, [&] { clock->offset = seconds; }, [&] { clock->offset = 0; }, seconds);
      });
  }
  all.push_back({"stages, suspended for 8 h", [=](Host& host) {
                   stages(
                       host, [&] { host.clock->advance(Seconds(8 * kHour)); }, [] {}, 8 * kHour);
                 }});
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  using namespace tarvo::faults;
  Driver driver("clock", count, arguments, 1);
  const auto table = rows();
  for (const Row& row : table) run(driver, row);
  return driver.end(static_cast<std::int64_t>(table.size()));
}
