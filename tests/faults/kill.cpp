// Kills a host that does everything, at random moments and at the places that `faultPoint` names, and looks after each
// kill, from outside the process, whether all that the host had reported is so. The next start needs no human.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "faults/Driver.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/PropertyList.h"
#include "sandbox/Database.h"
#include "settings/Names.h"
#include "store/LedgerText.h"
#include "support/RawServer.h"
#include "support/WholeSdk.h"

namespace {

using namespace tarvo;
namespace fs = std::filesystem;
using std::to_string;

/// How a home lives: its batches are confirmed, its store is bounded, its wire is not to be relied upon.
enum Manner { kConfirmed = 1, kBounded = 2, kBadWire = 4 };
constexpr int kManners[] = {0, kConfirmed | kBadWire, kBounded, kConfirmed | kBounded | kBadWire, kBadWire};

constexpr std::int64_t kDay = 86400, kFirstDay = 1718409600;  // 2024-06-15

// The host. What it writes down for its killer is true by then: "at PLACE", "fix SECOND" before it delivers one,
// "stored ACKNOWLEDGED" when all of them are, "ready" once it has started, "arrived" when the backend has everything.

struct {
  std::string place;
  std::atomic<std::int64_t> left = 0;
} target;

void report(const std::string& line) { (void)!::write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1); }

void reach(const char* place) {
  if (std::strcmp(place, "lock") == 0) return;  // too many; a random moment hits them as well
  report(std::string("at ") + place);
  if (target.place == place && target.left.fetch_sub(1) == 1) ::kill(::getpid(), SIGKILL);
}

/// usage: host FOLDER URL START SEED MANNER PLACE NTH; the start that brings all to the backend has the place "last".
int host(char** given) {
  const fs::path folder = given[2];
  if (!std::freopen((folder / "told").c_str(), "w", stdout) || !std::freopen((folder / "console").c_str(), "w", stderr))
    return EXIT_FAILURE;
  ::alarm(120);
  const int manner = std::stoi(given[6]);
  std::int64_t second = std::stoll(given[4]) * kDay + kDay / 24;  // since the first day; each start has a day
  faults::Driver dice("host", 0, nullptr, 0);
  dice.random.seed(std::stoull(given[5]));
  target.place = given[7];
  target.left = std::stoll(given[8]);
  platform::faultHook = reach;
  const auto clock =
      std::make_shared<platform::ManualClock>(platform::dateSince1970(static_cast<double>(kFirstDay + second)));
  platform::setHomeDirectory(folder / "home");
  platform::Clock::install(clock);
  platform::setInfoDictionary({{"CFBundleIdentifier", "a.b"}, {"TarvoApiKey", "key"}, {"TarvoClientID", "demo"}});
  platform::UserDefaults::standard().set(names::kLogLevel, 3);
  LocationManager::setRemoteWebServerURL(given[3]);
  const bool confirmed = (manner & kConfirmed) != 0;
  Tarvo::setDeliveryOptions({.confirmed = confirmed, .dropsProtocolBreaks = confirmed});
  if ((manner & kBounded) != 0)
    Tarvo::setStorageLimits({.positionAge = platform::Seconds(kDay), .storeBytes = 100'000});
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_GEOPROFILE);

  const auto pass = [&](std::int64_t seconds) { clock->advance(platform::Seconds(seconds)), second += seconds; };
  const auto deliver = [&](std::int64_t fixes) {
    for (; fixes > 0; --fixes) {
      pass(30 + dice.upTo(60));
      report("fix " + to_string(second));
      // A latitude of its own for each second: a position tells what it should be.
      platform::LocationService::shared().deliver(
          {{.coordinate = {40 + static_cast<double>(second) * 1e-5, 11.5}, .timestamp = clock->now()}});
    }
  };
  const auto wait = [&](bool atTheEnd) {
    if (!(atTheEnd ? Tarvo::waitUntilIdle(60) : platform::WorkInFlight::waitUntilIdle(platform::Seconds(60))))
      throw std::runtime_error("never idle");
    const auto status = tarvo.syncStatus();
    if (!status.storeAvailable || status.unsaved > 0) throw std::runtime_error("no store");
    report("stored " + to_string(status.acknowledged));
    return status.unsent + status.awaiting == 0;
  };
  const std::vector<std::function<void()>> asides{
      [&] {
        (void)tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
      },
      [&] { tarvo.resetLocalHistory(); },
      [&] { tarvo.requestRouteMatch(); },
      [&] { (void)tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}); },
      [&] { tarvo.activate(Tarvo::BACKEND_GEOPROFILE); },
      [&] { pass(180); },
  };
  deliver(1);
  wait(false);
  report("ready");
  asides[0]();
  for (std::int64_t step = 4 + dice.upTo(6); step > 0; --step) {
    deliver(dice.upTo(6));
    asides[static_cast<std::size_t>(dice.upTo(std::ssize(asides) - 1))]();
    if (const auto way = dice.upTo(5); way > 1) wait(way == 2);
  }
  for (int passes = 0; target.place == "last"; ++passes) {
    if (wait(passes % 2 == 0)) return report("arrived"), EXIT_SUCCESS;
    if (passes == 100) throw std::runtime_error("positions are left");
    pass(180);
    tarvo.locationManager().sendDataInBatchToRemoteWebServer();
  }
  return EXIT_SUCCESS;
}

/// The way between a host and its backend, on which nothing can be relied upon until it `isHonest`.
class Wire {
 public:
  /// `lies`: it also answers in the place of the backend.
  Wire(int port, std::uint64_t seed, bool lies) : port_(port), seed_(seed), lies_(lies) {}

  std::atomic<bool> isHonest = false;
  std::string url() const { return server_.url("/api"); }

 private:
  std::string ask(const std::string& request) const {
    test::Connection backend(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
    std::string answer;
    if (::connect(backend.socket, static_cast<sockaddr*>(static_cast<void*>(&address)), sizeof address) == 0 &&
        backend.send(request))
      answer = backend.readRequest();
    ::close(backend.socket);
    return answer;
  }

  void serve(test::Connection& peer) {
    static const auto answers = [] {
      std::vector<std::string> all{"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n{\"success\":true"};
      for (const char* body : {"<html>Log in</html>", "", R"({"success":false})", R"({"success":"true","results":7})"})
        all.push_back(test::httpReply(200, body));
      for (const int status : {302, 401, 500, 503})
        all.push_back(test::httpReply(status, "", "Retry-After: 7\r\nLocation: http://127.0.0.1:1/\r\n"));
      return all;
    }();
    for (std::string request; !(request = peer.readRequest()).empty();) {
      faults::Driver dice("wire", 0, nullptr, 0);
      dice.random.seed(seed_ + ++requests_);
      const auto beyond = answers.size(),
                 fate = (lies_ ? 0 : beyond) + static_cast<std::size_t>(dice.upTo(lies_ ? 30 : 5));
      if (isHonest) {
        if (!peer.send(ask(request))) return;
        continue;
      }
      if (fate == beyond) return peer.resetOnClose();  // lost on the way there
      std::string answer = fate > beyond || dice.upTo(1) == 0 ? ask(request) : "";
      if (fate == beyond + 1) return;  // lost on the way back
      if (fate == beyond + 2) answer = ask(request);
      if (fate == beyond + 3) std::this_thread::sleep_for(std::chrono::milliseconds(dice.upTo(30)));
      if (!peer.send(fate < beyond ? answers[fate] : answer) || fate == 0) return;
    }
  }

  const int port_;
  const std::uint64_t seed_;
  const bool lies_;
  std::atomic<std::uint64_t> requests_ = 0;
  test::RawServer server_{[this](test::Connection& peer) { serve(peer); }};
};

/// A home, its backend, and what is known of it.
struct Home {
  Home(int howItLives, std::uint64_t seed) : manner(howItLives) {
    fs::create_directory(files);
    backend.start();
    if ((manner & kBadWire) != 0) wire.emplace(backend.port(), seed, (manner & kConfirmed) != 0);
  }
  std::string url() const { return wire ? wire->url() : backend.baseURL(); }
  /// Something new to download.
  void serveMore() {
    const std::string next = to_string(++starts);
    sandbox::Canned canned;
    canned.trips = {R"({"route":{},"pasttrip_id":)" + next + "1}", R"({"pasttrip_id":)" + next + "2}"};
    canned.pois = {R"({"zone_geo_json":{}})", R"({"zone_geo_json":[]})"};
    canned.poiVersion = starts;
    canned.prediction =
        R"({"start_time":"","arrival_time":"","probability":1,"destination_lon":1,"destination_lat":1,"route":{},)"
        R"("destination_json":{},"start_name":"","arrival_name":"","duration":1,"prediction_id":)" +
        (next + "}");
    backend.serve(canned);
  }

  const int manner;
  test::TempDir folder;
  const fs::path files = folder.path() / "home";
  sandbox::Backend backend{{"demo", "key", "secret"}, folder.path() / "sandbox.sqlite"};
  std::optional<Wire> wire;
  std::int64_t starts = 0;
  bool isRegistered = false;
  std::map<std::int64_t, std::string> seen;  ///< what a number stands for
  std::set<std::string> promised;            ///< fixes that are in the store
  std::set<fs::path> abandoned;              ///< temporary files that the start before has left
  std::set<std::string> logs;
};

std::string textOf(const fs::path& file) {
  auto text = platform::readFile(file);
  return text ? std::move(*text) : std::string();
}

bool hasWholeLines(const std::string& log) {
  bool whole = log.empty() || log.back() == '\n';
  for (auto stamp = log.find("[[20"); stamp != log.npos; stamp = log.find("[[20", stamp + 1))
    whole &= stamp == 0 || log[stamp - 1] == '\n';
  return whole;
}

class Killer {
 public:
  Killer(int count, char** arguments) : driver_("kill", count, arguments, 60) {}

  int run() {
    const auto began = Clock::now();
    for (std::size_t homes = 0; kills_ < driver_.runs; ++homes) {
      Home home(kManners[homes % std::size(kManners)], driver_.random());
      // The places are learnt from the first start, which nobody kills, and from all that follow.
      if (places_[0].empty()) start(home, "", 0, {});
      for (std::int64_t life = 3 + driver_.upTo(30); life > 0 && kills_ < driver_.runs; --life) {
        const auto& places = places_[home.isRegistered];
        auto& latest = latest_[home.isRegistered];
        auto next = places.upper_bound(latest);  // one after the other, each at any of its times, rather the first ones
        if (next == places.end()) next = places.begin();
        if (next == places.end() || driver_.upTo(home.isRegistered ? 1 : 3) == 0)
          start(home, "", 0, std::chrono::microseconds(driver_.upTo(longest_.count())));
        else
          start(home, latest = next->first, 1 + driver_.upTo(driver_.upTo(next->second - 1)), {});
      }
      if (home.wire) home.wire->isHonest = true;
      start(home, "last", 0, {});
    }
    const std::chrono::duration<double> took = Clock::now() - began;
    std::cout << kills_ << " kills in " << starts_ << " starts, " << atPlaces_ << " of them at " << hit_.size()
              << " places; " << static_cast<double>(kills_) / took.count() << " a second" << std::endl;
    return driver_.end(kills_);
  }

 private:
  using Clock = std::chrono::steady_clock;

  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, what_ + otherwise); }

  /// Runs the host, kills it when the time is up, unless it kills itself, and looks at what it leaves.
  void start(Home& home, const std::string& place, std::int64_t nth, std::optional<std::chrono::microseconds> until) {
    what_ = "start " + to_string(starts_++) + ", the " + to_string(home.starts) + ". of a home of manner " +
            to_string(home.manner) + ", killed " +
            (until ? "after " + to_string(until->count()) + " us: " : "at \"" + place + "\" " + to_string(nth) + ": ");
    const std::string url = home.url(), start = to_string(home.starts), seed = to_string(driver_.random()),
                      manner = to_string(home.manner), times = to_string(nth);
    home.serveMore();
    const auto began = Clock::now();
    const pid_t child = ::fork();
    if (child == 0) {
      ::close_range(3, ~0U, 0);
      ::_exit(::execl("/proc/self/exe", "kill", "host", home.folder.path().c_str(), url.c_str(), start.c_str(),
                      seed.c_str(), manner.c_str(), place.c_str(), times.c_str(), nullptr));
    }
    if (until) {
      std::this_thread::sleep_for(*until);
      ::kill(child, SIGKILL);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const bool wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    kills_ += wasKilled;
    if (wasKilled && !until) ++atPlaces_, hit_.insert(place);
    if (!wasKilled && !until) longest_ = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
    const std::string console = textOf(home.folder.path() / "console");
    expect(wasKilled || status == 0,
           to_string(status) + console.substr(console.size() - std::min(console.size(), 300UL)));
    look(home, textOf(home.folder.path() / "told"), place == "last");
    fs::remove(home.folder.path() / "told");
  }

  void look(Home& home, const std::string& told, bool isLast) {
    std::map<std::string, std::int64_t> reached;
    std::map<std::string, std::string> facts;
    std::set<std::string> delivered;
    std::istringstream lines(told);
    for (std::string what, value; lines >> what && std::getline(lines, value) && !lines.eof(); facts[what] = value) {
      if (what == "at") ++reached[value.substr(1)];
      if (what == "fix") delivered.insert(std::string(action::kChanged) + value);
      if (what == "stored") home.promised.merge(delivered);
    }
    for (const auto& [place, times] : reached)
      places_[home.isRegistered][place] = std::max(places_[home.isRegistered][place], times);
    expect(!isLast || facts.contains("arrived"), "not all has arrived at the backend");
    lookAtFiles(home, facts.contains("ready"), isLast);
    lookAtStore(home, facts.contains("stored") ? std::stoll(facts["stored"]) : 0, isLast);
  }

  /// Whole lines, readable settings and journals, no temporary file that a whole start has left alone.
  void lookAtFiles(Home& home, bool isReady, bool isLast) {
    std::set<fs::path> temporary;
    std::string latest;
    for (const auto& entry : fs::recursive_directory_iterator(home.files)) {
      const std::string name = entry.path().filename();
      const auto holds = [&](auto&& what) { expect(static_cast<bool>(what), "damaged: " + name); };
      if (name.starts_with(".writing-")) {
        temporary.insert(entry.path());
        expect(!isReady || !home.abandoned.contains(entry.path()), "left over: " + name);
      } else if (name.starts_with("TarvoLog_")) {
        holds(textOf(entry).starts_with("--boundary\r\n") && hasWholeLines(textOf(entry)));
        latest = std::max(latest, *home.logs.insert(name).first);
      } else if (name == "defaults.plist") {
        holds(platform::parsePropertyList(textOf(entry)));
      } else if (name.ends_with(".jsonl")) {
        std::istringstream lines(textOf(entry));
        for (std::string line; std::getline(lines, line);) holds(platform::parseJson(line) && !lines.eof());
      }
    }
    home.abandoned = temporary;
    if (!isLast) return;
    home.logs.erase(latest);
    for (const auto& log : home.logs)
      expect(!fs::exists(home.files / "Documents" / log) && fs::exists(home.backend.logs() / log) &&
                 hasWholeLines(textOf(home.backend.logs() / log)),
             "not uploaded: " + log);
  }

  void lookAtStore(Home& home, std::int64_t acknowledged, bool isLast) {
    // A copy, so that the next start meets what the kill has left.
    const fs::path copies = home.folder.path() / "copies";
    fs::remove_all(copies);
    fs::create_directory(copies);
    for (const std::string end : {"", "-wal", "-journal"})
      if (const fs::path file = home.files / "Documents" / (ObjectStore::kFileName + end); fs::exists(file))
        fs::copy_file(file, copies / ("store" + end));
    sandbox::Database database(copies / "store");
    const auto read = [&](const std::string& columns, const std::string& from) {
      std::map<std::int64_t, std::string> rows;
      const auto statement = database.prepare("SELECT " + columns + " FROM " + from);
      for (sandbox::Execution row(statement); row.step();)
        expect(rows.emplace(row.number(0), row.text(1)).second, "twice in " + from + ": " + row.text(0));
      return rows;
    };
    expect(read("1, integrity_check", "pragma_integrity_check").at(1) == "ok", "the store is damaged");
    if (read("1, name", "sqlite_schema WHERE name = 'Locations'").empty())
      return expect(home.promised.empty() && home.seen.empty(), "the store has become empty");
    database.run(("ATTACH '" + (home.folder.path() / "sandbox.sqlite").native() + "' AS backend").c_str());
    const auto fix = [](const std::string& action, const std::string& latitude) {
      return action + " || ' ' || CAST(round(100000 * (" + latitude + " - 40)) AS INTEGER)";
    };
    const auto rows = read("\"index\", " + fix("serviceAction", "latitude"), "Locations");
    const auto done = read("\"index\", ''", "Locations WHERE unsent = 0");
    const auto received = read("id, " + fix("service_action", "lat"), "positions");

    const auto ledger = LedgerText::read(read("1, value", "_metadata WHERE name = 'ledger'")[1]);
    const auto unanswered = ledger ? ledger->acknowledgedWithoutAnswer : std::vector<Health::Range>();
    const auto isNamed = [&](std::int64_t index) {
      return std::any_of(unanswered.begin(), unanswered.end(),
                         [&](const auto& range) { return range.first <= index && index <= range.last; });
    };

    // What a bounded store has removed, the backend has.
    auto all = rows;
    if ((home.manner & kBounded) != 0) all.insert(received.begin(), received.end());
    std::set<std::string> fixes;
    for (const auto& [index, value] : all) fixes.insert(value);
    for (const auto& value : home.promised) expect(fixes.contains(value), "reported as stored, and lost: " + value);
    const auto stay = [&](const auto& known, const std::string& otherwise) {
      for (const auto& [index, value] : known)
        expect(all.contains(index) && all.at(index) == value, otherwise + to_string(index) + " " + value);
    };
    stay(home.seen, "lost or changed: ");
    stay(received, "posted, and another now: ");
    expect(all.empty() || (all.begin()->first == 0 && all.rbegin()->first == std::ssize(all) - 1), "holes");
    for (const auto& [index, value] : done)
      expect(received.contains(index) || isNamed(index), "never received: " + to_string(index));
    expect((home.manner & kConfirmed) == 0 || unanswered.empty(), "acknowledged without an answer");
    expect((home.manner & kBounded) != 0 || std::ssize(done) >= acknowledged, "fewer acknowledged than reported");
    for (const auto& [index, value] : all)
      expect(!isLast || received.contains(index) || isNamed(index), "never arrived: " + to_string(index));
    expect(!isLast || done.size() == rows.size(), "not all is acknowledged");
    for (const std::string& wrong : std::vector<std::string>{
             "Locations WHERE abs(locationTimestamp - 1718409600 - round(100000 * (latitude - 40))) > 0.01",
             "Users LIMIT -1 OFFSET 1", "PastTrips GROUP BY pasttrip_id HAVING count(*) > 1",
             "backend.users LIMIT -1 OFFSET 1"})
      expect(read("1, ''", wrong).empty(), "there is something in " + wrong);
    home.isRegistered = !read("1, uuid", "Users").empty();
    home.seen = rows;
  }

  faults::Driver driver_;
  std::string what_, latest_[2];
  std::map<std::string, std::int64_t> places_[2];  ///< and how often each was reached, before and after registration
  std::set<std::string> hit_;
  std::int64_t kills_ = 0, starts_ = 0, atPlaces_ = 0;
  std::chrono::microseconds longest_{100'000};
};

}  // namespace

int main(int count, char** arguments) {
  if (count > 1 && std::strcmp(arguments[1], "host") == 0) return host(arguments);
  return Killer(count, arguments).run();
}
