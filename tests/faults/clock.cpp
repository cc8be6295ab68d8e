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
  const auto pending = platform::Timer::after(Seconds(0.05), queue, [&] { fired.set_value(); });
  const Seconds start = clock->monotonic();
  clock->offset = seconds;
  ASSERT_EQ(fired.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_GT(clock->monotonic() - start, Seconds(0.045));
  EXPECT_LT(clock->looks, 40);
}

enum class Clocks { wall, all };

/// What is under way while the wall clock is set, and then set right, or while the machine sleeps and all clocks go on.
/// It begins some seconds before midnight, which comes in the second stage.
void stages(Host& host, double seconds, Clocks which) {
  host.clock->advance(Seconds(14 * 3600 - 180.25 - 5));
  const auto clock = test::SetClock::installed(host.clock);
  host.startBackend();
  NetworkManager::setApiKeySecret("secret");
  Tarvo tarvo;
  platform::UserDefaults::standard().set("tarvologlevel", 6);
  auto& faults = host.backend.faults();
  const auto step = [&] {
    if (which == Clocks::wall) clock->offset = seconds;
    if (which == Clocks::all) host.clock->advance(Seconds(seconds));
  };
  const auto hang = [&](const char* path, std::size_t requests, const std::function<void()>& start) {
    faults.hangNext(path, requests);
    start();
    EXPECT_TRUE(faults.waitUntilHanging(requests, std::chrono::seconds(10))) << path;
    step();
  };
  const auto acknowledge = [&] {
    std::atomic<bool> due = true;
    host.diary.onMessage([&](std::string_view line) {
      if (line.starts_with("Locations:markLocationAsSentUntilIndex") && due.exchange(false)) step();
    });
    host.upload();
    host.diary.onMessage({});
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
  for (const auto& [stage, begin, stores] : all) {
    SCOPED_TRACE(stage);
    host.collect(2);
    begin();
    LocationService::shared().deliver({Host::fixAt(-1.0 * stored, Host::kStart)});
    faults.release();
    host.waitUntilIdle();
    clock->offset = 0;
    host.drive(1);
    host.settle();
    stored += 2 + stores + 2;
    EXPECT_EQ(tarvo.syncStatus().stored, stored);
    const auto holdings = host.backend.holdings();
    EXPECT_TRUE(holdings.positions == stored && holdings.missing == 0);
    // A clock that leaps takes a channel in use for a stale one: what awaits its answer is posted once more.
    EXPECT_LE(holdings.repeats, seconds >= 180 ? holdings.positions : 0);
  }
  EXPECT_FALSE(fs::exists(log));
  EXPECT_GE(host.backend.holdings().logs, 1);
  std::size_t lines = 0;  // of the log, each in the file of its day
  for (const auto& entry : fs::directory_iterator(log.parent_path())) {
    const std::string name = entry.path().filename(), text = "\n" + bytesOf(entry.path());
    if (!name.starts_with("TarvoLog_")) continue;
    for (std::size_t at = 0; (at = text.find("\n[[", at) + 1) != 0; ++lines)
      EXPECT_EQ(text.substr(at + 2, 10), name.substr(9, 10));
  }
  EXPECT_GT(lines, 100u);
}

std::vector<Row> rows() {
  std::vector<Row> all = {{"suspended for 8 h", [](Host& host) { stages(host, 8 * 3600, Clocks::all); }}};
  for (const double span : {1.0, 3600.0, 86400.0, 3652 * 86400.0})
    for (const double by : {span, -span}) {
      const std::string set = platform::concat(", clock set by ", by, " s");
      all.push_back({"timer" + set, [=](Host&) { timer(by); }});
      all.push_back({"stages" + set, [=](Host& host) { stages(host, by, Clocks::wall); }});
    }
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  return tarvo::faults::run({"clock", count, arguments, 1}, tarvo::faults::rows());
}
