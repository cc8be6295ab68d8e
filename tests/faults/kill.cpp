// Kills a host that does everything, at random moments and at the places that `faultPoint` names, and looks after each
// kill, from outside the process, whether all that the host had reported is so. The next start needs no human.

#include <cstring>
#include <sstream>

#include "faults/Rows.h"
#include "platform/foundation/FaultPoint.h"
#include "settings/Names.h"
#include "support/RawServer.h"

namespace tarvo::faults {
namespace {

using platform::concat, platform::Seconds, std::chrono::microseconds;

/// How a home lives: its batches are confirmed, its store is bounded, its wire is not to be relied upon. And of a
/// start: it erases everything.
enum Manner { kConfirmed = 1, kBounded = 2, kBadWire = 4, kErases = 8 };
constexpr int kManners[] = {0, kConfirmed | kBadWire, kBounded, kConfirmed | kBounded | kBadWire, kBadWire};

constexpr std::int64_t kDay = 86400, kFirstDay = 1718409600;  // 2024-06-15

// The host. What it writes down for its killer is true by then: "at PLACE", "fix SECOND" before it delivers one,
// "stored all" when they are, "ready" once it has started, "arrived" when the backend has everything.

std::string& target = *new std::string;  // threads of the SDK reach places until the process has ended
std::atomic<std::int64_t> left = 0;

void report(const std::string& line) { (void)!::write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1); }

void reach(const char* place) {
  if (std::strcmp(place, "lock") == 0) return;  // too many; a random moment hits them as well
  report(concat("at ", place));
  if (target == place && left.fetch_sub(1) == 1) ::kill(::getpid(), SIGKILL);
}

/// usage, in the folder of its home: host "URL START SEED MANNER NTH PLACE". The last start, which brings
/// all to the backend, has the place "last".
int host(const std::string& given) {
  std::istringstream words(given);
  std::string url;
  std::int64_t second = 0, manner = 0, times = 0;
  Driver dice("host", 0, nullptr, 0);
  std::getline(words >> url >> second >> dice.seed >> manner >> times >> std::ws, target);
  second = second * kDay + kDay / 24;  // since the first day; each start has a day
  dice.random.seed(dice.seed);
  left = times;
  platform::faultHook = reach;
  const auto clock = std::make_shared<platform::ManualClock>(platform::dateSince1970(double(kFirstDay + second)));
  platform::setHomeDirectory(fs::current_path() / "home");
  platform::Clock::install(clock);
  platform::setInfoDictionary({{"CFBundleIdentifier", "a.b"}, {"TarvoApiKey", "key"}, {"TarvoClientID", "demo"}});
  LocationManager::setRemoteWebServerURL(url);
  Tarvo::setDeliveryOptions({.confirmed = (manner & kConfirmed) != 0});
  if ((manner & kBounded) != 0)
    Tarvo::setStorageLimits({Seconds(kDay), /*storeBytes=*/100'000, /*logAge=*/Seconds(kDay), /*logBytes=*/1'000'000});
  NetworkManager::setApiKeySecret("secret");
  Tarvo tarvo;
  const auto activate = [&] {
    platform::UserDefaults::standard().set(names::kLogLevel, 3);
    tarvo.activate(Tarvo::BACKEND_GEOPROFILE);
  };
  const auto pass = [&](std::int64_t seconds) { clock->advance(Seconds(seconds)), second += seconds; };
  const auto deliver = [&](std::int64_t fixes) {
    for (; fixes > 0; --fixes) {
      pass(30 + dice.upTo(60));
      report(concat("fix ", second));
      // A latitude of its own for each second: a position tells what it should be.
      platform::LocationService::shared().deliver({Host::fixAt(40 + second * 1e-5, kFirstDay + second)});
    }
  };
  const auto wait = [&](bool atTheEnd) {
    if (!(atTheEnd ? Tarvo::waitUntilIdle(60) : platform::WorkInFlight::waitUntilIdle(Seconds(60))))
      throw std::runtime_error("never idle");
    const auto status = tarvo.syncStatus();
    if (!status.storeAvailable || status.unsaved > 0) throw std::runtime_error("no store");
    report("stored all");
    return status.unsent + status.awaiting == 0;
  };
  const auto push = [&] { (void)tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}}); };
  const std::function<void()> asides[] = {push, [&] { tarvo.resetLocalHistory(); }, [&] { tarvo.requestRouteMatch(); },
                                          [&] { pass(180); }, activate};
  activate();
  deliver(1);
  wait(false);
  report("ready");
  push();
  for (std::int64_t step = 4 + dice.upTo(6); step > 0; --step) {
    deliver(dice.upTo(6));
    if (step == 2 && (manner & kErases) != 0 && !tarvo.eraseEverything()) throw std::runtime_error("not erased");
    asides[step == 2 ? 4 : dice.upTo(4)]();
    if (step == 2) deliver(1);  // a push message before any fix stops a process, again after an erasing
    if (const auto way = dice.upTo(5); way > 1) wait(way == 2);
  }
  for (int passes = 0; target == "last"; ++passes) {
    if (wait(passes % 2 == 0) && passes > 1) return report("arrived"), EXIT_SUCCESS;
    pass(180);
    push();  // for a log whose upload was under way at the first
    Host::engine().sendDataInBatchToRemoteWebServer();
  }
  return EXIT_SUCCESS;
}

/// The way between a host and its backend, on which nothing can be relied upon until it `isHonest`.
struct Wire {
  std::string ask(const std::string& request) const {
    test::Connection backend(::socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const void* generic = &address;
    (void)::connect(backend.socket, static_cast<const sockaddr*>(generic), sizeof address);
    std::string answer = backend.send(request) ? backend.readRequest() : "";
    ::close(backend.socket);
    return answer;
  }
  void serve(test::Connection& peer) {
    for (std::string request; !(request = peer.readRequest()).empty();) {
      const auto fate = isHonest ? 4 : std::mt19937_64(seed + ++requests)() % 7;
      if (fate == 0) return peer.resetOnClose();  // lost on the way there
      std::string answer = ask(request);
      if (fate == 1) return;  // lost on the way back
      if (fate == 2) answer = ask(request);
      if (fate == 3) answer = test::httpReply(503, "<html>Log in</html>", "Retry-After: 7\r\n");
      if (fate == 6 && liesToo) answer = test::httpReply(200, "<html>Log in</html>");
      if (!peer.send(answer)) return;
    }
  }

  const in_port_t port;
  const std::uint64_t seed;
  const bool liesToo;  ///< which acknowledges what is not confirmed
  std::atomic<bool> isHonest = false;
  std::atomic<std::uint64_t> requests = 0;
  test::RawServer server{[this](test::Connection& peer) { serve(peer); }};
};

/// What is known of a home, since everything was erased, and how to see what must not be in its store.
constexpr const char* kKnown = R"(
  CREATE TABLE IF NOT EXISTS seen(n, second, action);  -- what a number stands for
  CREATE TABLE IF NOT EXISTS promised(second);         -- fixes that are in the store
  CREATE TEMP TABLE now(isLast, isConfirmed, since, erasings);
  CREATE TEMP VIEW stored AS SELECT "index" AS n, CAST(round(100000 * (latitude - 40)) AS INTEGER) AS second,
    serviceAction AS action, unsent, locationTimestamp - 1718409600 AS at FROM store.Locations;
  CREATE TEMP VIEW received AS SELECT id AS n, CAST(round(100000 * (lat - 40)) AS INTEGER) AS second,
    service_action AS action FROM backend.positions WHERE useruuid IN (SELECT uuid FROM store.Users);
  CREATE TEMP VIEW every AS SELECT n, second, action FROM stored UNION SELECT * FROM received;
  CREATE TEMP VIEW unanswered AS SELECT range.value ->> 0 AS first, range.value ->> 1 AS last
    FROM store._metadata entry, json_each(entry.value, '$.acknowledged_without_answer') range WHERE name = 'ledger';
  CREATE TEMP VIEW removed AS SELECT coalesce(max('[' || replace(value, ' ', ',') || ']' ->> 2), 0) AS count
    FROM store._metadata WHERE name = 'Locations.keys';
  CREATE TEMP VIEW wrong(what, which) AS
  SELECT 'damaged', integrity_check FROM pragma_integrity_check WHERE schema = 'store' AND integrity_check <> 'ok'
  UNION ALL SELECT 'posted, and another now', n FROM every GROUP BY n HAVING count(*) > 1
  UNION ALL SELECT 'lost or changed', n FROM (SELECT * FROM seen EXCEPT SELECT * FROM every)
  UNION ALL SELECT 'reported as stored, and lost', second FROM
    (SELECT second FROM promised EXCEPT SELECT second FROM every WHERE action = 'loc_changed')
  UNION ALL SELECT 'holes', count(*) FROM every HAVING count(*) <> max(n) + 1
  UNION ALL SELECT 'there twice, or removed and not counted or not received', count FROM removed
    WHERE count + (SELECT count(*) FROM stored) <> (SELECT count(*) FROM every)
  UNION ALL SELECT 'never received', n FROM stored, now WHERE (isLast OR NOT unsent)
    AND n NOT IN (SELECT n FROM received) AND NOT EXISTS (SELECT * FROM unanswered WHERE n BETWEEN first AND last)
  UNION ALL SELECT 'acknowledged without an answer', first FROM unanswered, now WHERE isConfirmed
  UNION ALL SELECT 'at another place, or erased', n FROM stored, now WHERE abs(at - second) > 0.01 OR second <= since
  UNION ALL SELECT 'a second user', erasings FROM now
    WHERE (SELECT count(*) FROM store.Users) > 1 OR (SELECT count(*) FROM backend.users) > 1 + erasings
  UNION ALL SELECT 'a trip twice', pasttrip_id FROM store.PastTrips GROUP BY pasttrip_id HAVING count(*) > 1;)";
constexpr const char* kLook = R"(SELECT what || ': ' || which FROM wrong;
  DELETE FROM seen; INSERT INTO seen SELECT n, second, action FROM stored)";
constexpr const char* kLookForNone = "SELECT 'lost: ' || second FROM promised";

/// A home, its backend, and what is known of it.
struct Home {
  Home(int howItLives, std::uint64_t seed) : manner(howItLives) {
    fs::create_directory(files);
    backend.start();
    if ((manner & kBadWire) != 0)
      wire.reset(new Wire{static_cast<in_port_t>(backend.port()), seed, (manner & kConfirmed) != 0});
  }

  const int manner;
  const test::TempDir folder;
  const fs::path files = folder.path() / "home", told = folder.path() / "told", copy = folder.path() / "copy";
  const fs::path archive = folder.path() / "sandbox.sqlite";
  sandbox::Backend backend{{"demo", "key", "secret"}, archive};
  std::unique_ptr<Wire> wire;
  std::int64_t starts = 0, erasings = 0;
  std::string since = "0";     ///< the second of the last fix before everything was erased
  std::string learnt;          ///< what goes into `kKnown` next
  std::set<std::string> logs;  ///< all that there were
};

class Killer {
 public:
  Killer(int count, char** arguments) : driver_("kill", count, arguments, 60) {}

  int run() {
    for (std::size_t homes = 0; kills_ < driver_.runs; ++homes) {
      Home home(kManners[homes % std::size(kManners)], driver_.random());
      // The places are learnt from the first start, which nobody kills, and from all that follow.
      if (places_.empty()) start(home, "", 0, {});
      for (std::int64_t life = 3 + driver_.upTo(30); life > 0 && kills_ < driver_.runs; --life) {
        // One place after the other, each at any of its times, rather the first ones.
        auto next = places_.upper_bound(latest_);
        if (next == places_.end()) next = places_.begin();
        if (driver_.upTo(1) == 0)
          start(home, "", 0, microseconds(driver_.upTo(longest_.count())));
        else
          start(home, latest_ = next->first, 1 + driver_.upTo(driver_.upTo(next->second - 1)), {});
      }
      if (home.wire) home.wire->isHonest = true;
      start(home, "last", 0, {});
    }
    const bool isEnough = driver_.runs >= 600 || (driver_.seed == 1 && driver_.runs >= 60);  // with most seeds 60 are
    for (const char* place : {"retention: removed", "retention: log file", "erase: done"})
      driver_.expect(!isEnough || places_.contains(place), concat("never reached: ", place));
    std::cout << concat(kills_, " kills in ", starts_, " starts, at ", hit_.size(), " of ", places_.size(),
                        " places\n");
    return driver_.end(kills_);
  }

 private:
  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, what_ + otherwise); }

  /// Runs the host, kills it when the time is up, unless it kills itself, and looks at what it leaves.
  void start(Home& home, const std::string& place, std::int64_t nth, std::optional<microseconds> until) {
    // Only who has erased everything registers again and has a store made.
    const bool erases = driver_.upTo(9) == 0 || std::regex_search(place, std::regex("^(erase|registration|store)"));
    const std::string url = home.wire ? home.wire->server.url("/api") : home.backend.baseURL();
    const auto given = concat(url, " ", home.starts, " ", std::to_string(driver_.random()), " ",
                              home.manner | (erases ? kErases : 0), " ", nth, " ", place);
    what_ = concat("start ", starts_++, " of \"", given, "\", killed after ", until ? until->count() : -1, " us: ");
    home.backend.serve(sandbox::parseCanned(std::regex_replace(
        R"({"trips":[{"route":{},"pasttrip_id":N1},{"pasttrip_id":N2}],"pois":[{"zone_geo_json":{}},{}],)"
        R"("poi_version":N,"prediction":{"prediction_id":N,"route":{},"start_name":"","duration":1}})",
        std::regex("N"), std::to_string(++home.starts))));
    const auto began = std::chrono::steady_clock::now();
    const pid_t child = test::startProcess([&] {
      begin(home.told, 120);
      ::close_range(3, ~0U, 0);
      return ::chdir(home.folder.path().c_str()) || ::execl("/proc/self/exe", "kill", "host", given.c_str(), nullptr);
    });
    if (until) {
      std::this_thread::sleep_for(*until);
      ::kill(child, SIGKILL);
    }
    const std::string end = endOf(child, home.told);
    expect(end == "killed" || end == "lives", end);
    kills_ += end == "killed";
    if (end == "killed" && !until) hit_.insert(place);
    if (end == "lives") longest_ = std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now() - began);
    look(home, place == "last");
  }

  void look(Home& home, bool isLast) {
    std::map<std::string, std::string> facts;
    std::map<std::string, std::int64_t> times;
    std::string delivered;
    const auto forget = [&] {
      home.since = facts["fix"], home.logs.clear(), ++home.erasings;
      home.learnt = "DELETE FROM seen; DELETE FROM promised;", delivered.clear();
    };
    std::istringstream told(bytesOf(home.told));
    for (std::string what, value; told >> what && std::getline(told, value) && !told.eof(); facts[what] = value) {
      if (what == "at") places_[value.substr(1)] = std::max(places_[value.substr(1)], ++times[value.substr(1)]);
      if (what == "fix") delivered += concat("INSERT INTO promised VALUES(", value, ");");
      if (what == "stored") home.learnt += std::exchange(delivered, "");
      if (value == " erase: marked") forget();
    }
    fs::remove(home.told);
    expect(!isLast || facts.contains("arrived"), "not all has arrived at the backend");
    if (fs::exists(home.files / "Library" / "erasing")) {
      const bool isNew = times.contains("erase: before the marker");
      if (isNew && !times.contains("erase: marked")) forget();
      return expect(isNew || !facts.contains("ready"), "an erasing is not finished");
    }
    // A copy, so that the next start meets what the kill has left.
    fs::remove_all(home.copy);
    fs::create_directory(home.copy);
    std::error_code isMissing;
    fs::copy(home.files / "Documents", home.copy, isMissing);
    const fs::path store = home.copy / ObjectStore::kFileName;
    const auto now = concat("INSERT INTO now VALUES(", isLast, ",", home.manner & kConfirmed, ",", home.since, ",",
                            home.erasings, ");");
    const bool isMade = ask(store, "SELECT count(*) FROM sqlite_schema WHERE name = 'Locations'") == "1";
    const auto wrong =
        ask(home.folder.path() / "known.sqlite",
            concat("PRAGMA synchronous = OFF; ATTACH '", home.archive.native(), "' AS backend; ATTACH '",
                   store.native(), "' AS store;", kKnown, now, home.learnt, isMade ? kLook : kLookForNone));
    home.learnt.clear();
    expect(wrong.empty(), wrong);
    for (const auto& entry : fs::directory_iterator(home.copy))
      if (const std::string name = entry.path().filename(); name.starts_with("TarvoLog_")) home.logs.insert(name);
    if (isLast) home.logs.erase(std::prev(home.logs.end()));  // today's
    for (const auto& log : home.logs) {
      const auto user =
          log.substr(std::strlen("TarvoLog_2024-06-15_"), std::strlen("00000000-0000-0000-0000-000000000000"));
      const bool isHere = fs::exists(home.copy / log), isThere = fs::exists(home.backend.logs() / user / log);
      const bool mayGo = (home.manner & kBounded) != 0 && log < firstNameOf(home.starts - 2);
      expect(isLast ? !isHere && (isThere || mayGo) : isThere || isHere || mayGo,
             concat(isHere ? "not sent: " : "lost: ", log));
    }
  }

  /// Logs of earlier days have lesser names.
  static std::string firstNameOf(std::int64_t day) {
    const std::time_t time = kFirstDay + day * kDay;
    char name[32];
    return std::string(name, std::strftime(name, sizeof name, "TarvoLog_%F", std::gmtime(&time)));
  }

  Driver driver_;
  std::string what_, latest_;
  std::map<std::string, std::int64_t> places_;  ///< and how often each was reached
  std::set<std::string> hit_;
  std::int64_t kills_ = 0, starts_ = 0;
  microseconds longest_{100'000};
};

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  using namespace tarvo::faults;
  if (count > 1 && std::strcmp(arguments[1], "host") == 0) return host(arguments[2]);
  return Killer(count, arguments).run();
}
