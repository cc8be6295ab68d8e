// The wall clock is set, by a second to ten years, in the midst of each stage of the work and around midnight, and set
// right again; or the machine is suspended. Nothing crashes, spins, is lost or comes twice but as the documents say.

#include <future>

#include "faults/Rows.h"
#include "log/LogFile.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Timer.h"
#include "support/SetClock.h"

namespace tarvo::faults {
namespace {

using platform::LocationService, platform::Seconds;

/// On a clock that runs by itself a timer fires in time, and its thread wakes no more often than it has to.
void timer(double seconds) {
  const auto clock = test::SetClock::installed(nullptr);
  std::promise<void> fired;
  platform::SerialQueue queue("timer");
  const Seconds start = clock->monotonic();
  const auto pending = platform::Timer::after(Seconds(0.05), queue, [&] { fired.set_value(); });
  clock->offset = seconds;
  ASSERT_EQ(fired.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_GT(clock->monotonic() - start, Seconds(0.0499));
  EXPECT_LT(clock->looks, 40);
}

/// What is under way while the wall clock is set, and then set right, or while the machine sleeps and all clocks go on.
/// It begins some seconds before midnight, which comes in the second stage.
/// By default, or confirmed and with limits on what is stored.
void stages(Host& host, double seconds, bool isAsleep, bool hasOptions = false) {
  Tarvo::setDeliveryOptions({.confirmed = hasOptions});
  host.clock->advance(Seconds(14 * 3600 - 180.25 - 5));
  const auto clock = test::SetClock::installed(host.clock);
  host.startBackend();
  NetworkManager::setApiKeySecret("secret");
  Tarvo tarvo;
  platform::UserDefaults::standard().set("tarvologlevel", 6);
  auto& faults = host.backend.faults();
  const auto step = [&] { isAsleep ? host.clock->advance(Seconds(seconds)) : clock->offset.store(seconds); };
  const auto hang = [&](const char* path, std::size_t requests, const std::function<void()>& start) {
    faults.hangNext(path, requests);
    start();
    EXPECT_TRUE(faults.waitUntilHanging(requests, std::chrono::seconds(10))) << path;
    step();
  };
  const auto acknowledge = [&] {
    std::atomic<bool> due = true;
    platform::setSystemLogSink([&](std::string_view line) {
      if (line.starts_with("Locations:markLocationAsSentUntilIndex") && due.exchange(false)) step();
    });
    host.upload();
    platform::setSystemLogSink([](auto) {});
    EXPECT_FALSE(due);
  };
  const fs::path log = host.home.path() / "Documents/TarvoLog_2020-01-01_U_IOS.txt";
  const auto uploadLogs = [&] {
    (void)logFileNamed(log.filename().native());  // makes it
    tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
  };
  const std::tuple<const char*, std::function<void()>, int> all[] = {
      {"intake", [&] { LocationService::shared().deliver({Host::fixAt(1, Host::kStart)}), step(); }, 1},
      {"upload", [&] { hang("positions", 1, [&] { host.engine().sendDataInBatchToRemoteWebServer(); }); }, 0},
      {"acknowledgement", acknowledge, 0},
      {"download", [&] { hang("predictions", 1, [] { NetworkManager().getNextTrip(); }); }, 0},
      {"log upload", [&] { hang("uplog", 1, uploadLogs); }, 1}};
  hang("users", 2, [&] { tarvo.activate(Tarvo::BACKEND_GEOPROFILE); });
  faults.release();
  host.waitUntilIdle();
  clock->offset = 0;
  host.clock->advance(Seconds(180));
  std::int64_t stored = tarvo.syncStatus().stored;
  bool isMostRemoved = false;
  for (const auto& [stage, begin, stores] : all) {
    SCOPED_TRACE(stage);
    host.collect(2);
    begin();
    // A new limit is looked at with the next position, whatever the clock shows then.
    if (hasOptions) Tarvo::setStorageLimits({.positionAge = Seconds(1800.0 + stored), .logAge = Seconds(86400)});
    LocationService::shared().deliver({Host::fixAt(-1.0 * stored, Host::kStart)});
    faults.release();
    host.waitUntilIdle();
    clock->offset = 0;
    host.drive(1);
    host.settle();
    stored += 2 + stores + 2;
    const auto removed = tarvo.health().positions.removed;
    EXPECT_EQ(tarvo.syncStatus().stored + removed, stored);
    isMostRemoved = removed > 2;
    const auto holdings = host.backend.holdings();
    EXPECT_TRUE(holdings.positions == stored && holdings.missing == 0);
    // A clock that leaps takes a channel in use for a stale one: what awaits its answer is posted once more.
    EXPECT_LE(holdings.repeats, seconds >= 180 ? holdings.positions : 0);
  }
  EXPECT_EQ(isMostRemoved, hasOptions && seconds > 1800) << "with a clock that is ahead";
  EXPECT_FALSE(fs::exists(log));
  EXPECT_GE(host.backend.holdings().logs, 1);
  for (const auto& entry : fs::directory_iterator(log.parent_path())) {
    const std::string name = entry.path().filename();
    if (!name.starts_with("TarvoLog_")) continue;
    const std::regex otherDay("\n\\[\\[(?!" + name.substr(9, 10) + ")");
    EXPECT_FALSE(std::regex_search(bytesOf(entry), otherDay)) << name;
  }
}

std::vector<Row> rows(const Driver&) {
  std::vector<Row> all = {{"suspended for 8 h", [](Host& host) { stages(host, 8 * 3600, true); }}};
  for (const double by : {1., -1., 3600., -3600., 86400., -86400., 3652 * 86400., -3652 * 86400.}) {
    all.push_back({platform::concat("timer, clock set by ", by, " s"), [=](Host&) { timer(by); }});
    all.push_back({platform::concat("stages, clock set by ", by, " s"), [=](Host& host) { stages(host, by, false); }});
    all.push_back({platform::concat("stages, confirmed and limited, clock set by ", by, " s"),
                   [=](Host& host) { stages(host, by, false, true); }});
  }
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  return tarvo::faults::run({"clock", count, arguments, 1}, tarvo::faults::rows);
}
