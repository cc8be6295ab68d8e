// Kills a host that does everything, at random moments and at the places that `faultPoint` names, and looks after each
// kill, from outside the process, whether all that the host had reported is so. The next start needs no human.

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

#include "faults/Driver.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/PropertyList.h"
#include "sandbox/Database.h"
#include "settings/Names.h"
#include "support/RawServer.h"
#include "support/WholeSdk.h"

namespace {

using namespace tarvo;
namespace fs = std::filesystem;
using std::to_string;

constexpr std::int64_t kDay = 86400;
constexpr double kFirstDay = 1718409600;  // 2024-06-15
/// Each second has a latitude of its own, so that a position tells what it should be.
double latitudeAt(std::int64_t second) { return 40 + static_cast<double>(second) * 1e-5; }

// The host. What it reports on its standard output is true when it is written: "@place" for a place that it has
// reached, "fix SECOND" for one that it delivers, "ready" once a start is over, "stored N acknowledged M" of all.

struct {
  std::string place;
  std::atomic<std::int64_t> left = 0;
} target;

void report(const std::string& line) { (void)!::write(STDOUT_FILENO, (line + "\n").c_str(), line.size() + 1); }

void reach(const char* place) {
  if (std::strcmp(place, "lock") == 0) return;  // too many; a random moment hits them as well
  report(std::string("@") + place);
  if (target.place == place && target.left.fetch_sub(1) == 1) ::kill(::getpid(), SIGKILL);
}

/// usage: host HOME URL START SEED MANNER PLACE NTH; a start that is to bring all to the backend has the place "last".
int host(char** given) {
  const std::int64_t start = std::stoll(given[4]);
  faults::Driver dice("host", 0, nullptr, 0);
  dice.random.seed(std::stoull(given[5]));
  target.place = given[7];
  target.left = std::stoll(given[8]);
  const bool isLast = target.place == "last";
  platform::faultHook = reach;

  const auto clock = std::make_shared<platform::ManualClock>(
      platform::dateSince1970(kFirstDay + static_cast<double>(start * kDay + kDay / 24)));
  platform::setHomeDirectory(given[2]);
  platform::Clock::install(clock);
  platform::setInfoDictionary(
      {{"CFBundleIdentifier", "org.example.host"}, {"TarvoApiKey", "key"}, {"TarvoClientID", "demo"}});
  platform::UserDefaults::standard().set(names::kLogLevel, 3);
  LocationManager::setRemoteWebServerURL(given[3]);
  Tarvo tarvo;
  NetworkManager::setApiKeySecret("secret");
  tarvo.activate(Tarvo::BACKEND_GEOPROFILE);
  tarvo.requestRouteMatch();

  std::int64_t second = start * kDay + kDay / 24;
  const auto deliver = [&](std::int64_t fixes) {
    for (; fixes > 0; --fixes) {
      second += 30 + dice.upTo(60);
      clock->advanceTo(platform::dateSince1970(kFirstDay + static_cast<double>(second)));
      report("fix loc_changed " + to_string(second));
      platform::LocationService::shared().deliver(
          {{.coordinate = {latitudeAt(second), 11.5}, .timestamp = clock->now()}});
    }
  };
  const auto wait = [&](bool atTheEnd) {
    if (!(atTheEnd ? Tarvo::waitUntilIdle(60) : platform::WorkInFlight::waitUntilIdle(platform::Seconds(60))))
      return report("never idle");
    const auto status = tarvo.syncStatus();
    if (!status.storeAvailable || status.unsaved > 0) report("no store");
    report("stored " + to_string(status.stored) + " acknowledged " + to_string(status.acknowledged));
  };
  // What a host may do besides.
  const std::vector<std::function<void()>> asides{
      [&] {
        tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
      },
      [&] { tarvo.resetLocalHistory(); },
      [&] { tarvo.setTags("tag", to_string(second)); },
      [&] { (void)tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}); },
      [&] { tarvo.activate(Tarvo::BACKEND_GEOPROFILE); },
      [&] { clock->advance(platform::Seconds(180)), second += 180; },
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
  for (int pass = 0; isLast && pass < 100; ++pass) {
    tarvo.locationManager().sendDataInBatchToRemoteWebServer();
    wait(pass % 2 == 0);
    const auto status = tarvo.syncStatus();
    if (status.unsent + status.awaiting == 0) return report("arrived"), EXIT_SUCCESS;
    clock->advance(platform::Seconds(180));
  }
  if (dice.upTo(1) == 0) wait(true);
  return EXIT_SUCCESS;
}

// What kills it.

/// Something new to download at each start.
sandbox::Canned cannedFor(std::int64_t start) {
  sandbox::Canned canned;
  canned.prediction = R"({"start_time":"a","arrival_time":"b","probability":0.5,"destination_lon":11,"route":{},)"
                      R"("destination_lat":48,"destination_json":{},"start_name":"c","arrival_name":"d","duration":1,)"
                      R"("prediction_id":)" +
                      to_string(start + 1) + "}";
  for (std::int64_t id = 3 * start + 1; id <= 3 * start + 3; ++id) {
    canned.trips.push_back(R"({"route":{},"pasttrip_id":)" + to_string(id) + "}");
    canned.pois.push_back(R"({"zone_geo_json":{},"poi_id":)" + to_string(id) + "}");
  }
  canned.poiVersion = start + 1;
  return canned;
}

std::string textOf(const fs::path& file) {
  auto text = platform::readFile(file);
  return text ? std::move(*text) : std::string();
}

/// A home, its backend, and what is known of it.
struct Home {
  explicit Home(int ofDelivery) : manner(ofDelivery) {
    fs::create_directory(files);
    backend.start();
  }

  const int manner;
  test::TempDir folder;
  const fs::path files = folder.path() / "home";
  sandbox::Backend backend{{"demo", "key", "secret"}, folder.path() / "sandbox.sqlite"};
  std::int64_t starts = 0;
  bool isRegistered = false;
  std::map<std::int64_t, std::string> seen;  ///< what a number stands for
  std::set<std::string> promised;            ///< fixes that are in the store
  std::set<fs::path> abandoned;              ///< temporary files that the start before has left
  std::set<std::string> logs;
};

class Killer {
 public:
  Killer(int count, char** arguments) : driver_("kill", count, arguments, 60) {}

  int run() {
    const auto began = Clock::now();
    while (kills_ < driver_.runs) {
      Home home(0);
      // The places are learnt from the first start, which nobody kills, and from all that follow.
      if (places_[0].empty()) start(home, "", 0, {});
      for (std::int64_t life = 5 + driver_.upTo(30); life > 0 && kills_ < driver_.runs; --life) {
        const auto& places = places_[home.isRegistered];
        if (places.empty() || driver_.upTo(1) == 0) {
          start(home, "", 0, Microseconds(driver_.upTo(longest_.count())));
        } else {
          auto next = places.upper_bound(latest_);  // one after the other, each at any of its times
          if (next == places.end()) next = places.begin();
          latest_ = next->first;
          start(home, latest_, 1 + driver_.upTo(next->second - 1), {});
        }
      }
      start(home, "last", 0, {});
    }
    const std::chrono::duration<double> took = Clock::now() - began;
    std::cout << kills_ << " kills in " << starts_ << " starts, " << kills_ - atPlaces_
              << " at random moments, the others at " << hit_.size() << " places; "
              << static_cast<double>(kills_) / took.count() << " a second" << std::endl;
    for (const auto& places : places_)
      for (const auto& [place, times] : places)
        if (!hit_.contains(place)) std::cout << "  never at \"" << place << "\"\n";
    return driver_.end(kills_);
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Microseconds = std::chrono::microseconds;

  void expect(bool holds, const std::string& otherwise) { driver_.expect(holds, what_ + ": " + otherwise); }

  void start(Home& home, const std::string& place, std::int64_t nth, std::optional<Microseconds> until) {
    what_ = "start " + to_string(starts_++) + " (" + to_string(home.starts) + " of its home), to be killed " +
            (until ? "after " + to_string(until->count()) + " us" : "at the " + to_string(nth) + ". \"" + place + "\"");
    home.backend.serve(cannedFor(home.starts));
    std::vector<std::string> words{"kill",
                                   "host",
                                   home.files,
                                   home.backend.baseURL(),
                                   to_string(home.starts++),
                                   to_string(driver_.random()),
                                   to_string(home.manner),
                                   place,
                                   to_string(nth)};
    std::vector<char*> arguments;
    for (auto& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const fs::path console = home.folder.path() / "console.txt";
    int pipe[2];
    pid_t child = 0;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, console.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const auto began = Clock::now();
    if (::posix_spawn(&child, "/proc/self/exe", &actions, nullptr, arguments.data(), environ) != 0)
      throw std::runtime_error("no host");
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    const std::string told = follow(child, pipe[0], began + until.value_or(std::chrono::minutes(2)), until.has_value());
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    const bool wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    kills_ += wasKilled;
    if (wasKilled && !until) ++atPlaces_, hit_.insert(place);
    if (!wasKilled) longest_ = std::chrono::duration_cast<Microseconds>(Clock::now() - began);
    const std::string log = textOf(console);
    expect(wasKilled || status == 0,
           "ended with " + to_string(status) + ": " + log.substr(log.size() - std::min<std::size_t>(log.size(), 300)));
    look(home, told, place == "last");
  }

  /// What the host tells until it is gone; kills it when its time is up.
  std::string follow(pid_t child, int from, Clock::time_point deadline, bool isWanted) {
    std::string told;
    char buffer[4096];
    for (ssize_t count = 1; count > 0;) {
      const auto left = std::max(Clock::duration::zero(), deadline - Clock::now());
      const timespec span{left / std::chrono::seconds(1), (left % std::chrono::seconds(1)).count()};
      pollfd readable{from, POLLIN, 0};
      if (::ppoll(&readable, 1, &span, nullptr) == 0) {
        expect(isWanted, "the host does not end");
        ::kill(child, SIGKILL);
        deadline += std::chrono::hours(1);
      } else if ((count = ::read(from, buffer, sizeof buffer)) > 0) {
        told.append(buffer, static_cast<std::size_t>(count));
      }
    }
    return told;
  }

  void look(Home& home, const std::string& told, bool isLast) {
    auto& places = places_[home.isRegistered];
    std::map<std::string, std::int64_t> reached;
    std::set<std::string> delivered;
    std::int64_t stored = 0, acknowledged = 0;
    bool isReady = false, haveArrived = false;
    std::istringstream lines(told);
    for (std::string line, word; std::getline(lines, line) && !lines.eof();) {
      std::istringstream words(line);
      words >> word;
      if (line.starts_with('@')) {
        places[line.substr(1)] = std::max(places[line.substr(1)], ++reached[line.substr(1)]);
      } else if (word == "fix") {
        delivered.insert(line.substr(4));
      } else if (word == "stored") {
        words >> stored >> word >> acknowledged;
        home.promised.merge(delivered);
      } else {
        isReady |= word == "ready";
        haveArrived |= word == "arrived";
        expect(word == "ready" || word == "arrived", "the host tells: " + line);
      }
    }
    expect(!isLast || haveArrived, "not all has arrived at the backend");
    lookAtFiles(home, isReady, isLast);
    lookAtStore(home, stored, acknowledged, isLast);
  }

  /// Whole lines, readable settings and journals, and no temporary file that a start has found and left.
  void lookAtFiles(Home& home, bool isReady, bool isLast) {
    std::set<fs::path> temporary;
    const auto isWhole = [](const std::string& text) {
      bool whole = text.empty() || text.back() == '\n';
      for (auto stamp = text.find("[[20"); stamp != text.npos; stamp = text.find("[[20", stamp + 1))
        whole &= stamp == 0 || text[stamp - 1] == '\n';
      return whole;
    };
    std::string latestLog;
    for (const auto& entry : fs::recursive_directory_iterator(home.files)) {
      const std::string name = entry.path().filename();
      const auto holds = [&](auto&& what) { expect(static_cast<bool>(what), "damaged: " + name); };
      if (name.starts_with(".writing-")) {
        temporary.insert(entry.path());
        expect(!isReady || !home.abandoned.contains(entry.path()), "abandoned twice: " + entry.path().native());
      } else if (name.starts_with("TarvoLog_")) {
        holds(textOf(entry).starts_with("--boundary\r\n") && isWhole(textOf(entry)));
        home.logs.insert(name);
        latestLog = std::max(latestLog, name);
      } else if (name == "defaults.plist") {
        holds(platform::parsePropertyList(textOf(entry)));
      } else if (name.ends_with(".jsonl")) {
        std::istringstream lines(textOf(entry));
        for (std::string line; std::getline(lines, line);) holds(platform::parseJson(line) && !lines.eof());
      }
    }
    home.abandoned = temporary;
    if (!isLast) return;
    home.logs.erase(latestLog);
    for (const auto& log : home.logs)  // one whose process was killed at its first line has none
      expect(!fs::exists(home.files / "Documents" / log) && fs::exists(home.backend.logs() / log) &&
                 isWhole(textOf(home.backend.logs() / log)),
             "not uploaded: " + log);
  }

  void lookAtStore(Home& home, std::int64_t stored, std::int64_t acknowledged, bool isLast) {
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
      return expect(stored == 0 && home.seen.empty(), "the store has become empty");
    database.run(("ATTACH '" + (home.folder.path() / "sandbox.sqlite").native() + "' AS backend").c_str());
    const std::string second = "CAST(round(100000 * (latitude - 40)) AS INTEGER)";
    const auto rows = read("\"index\", serviceAction || ' ' || " + second, "Locations");
    const auto done = read("\"index\", serviceAction || ' ' || " + second, "Locations WHERE unsent = 0");
    const auto received = read("id, service_action || ' ' || CAST(round(100000 * (lat - 40)) AS INTEGER)", "positions");

    std::set<std::string> fixes;
    for (const auto& [index, fix] : rows) fixes.insert(fix);
    for (const auto& fix : home.promised) expect(fixes.contains(fix), "reported as stored, and lost: " + fix);
    expect(rows.empty() || (rows.begin()->first == 0 && std::prev(rows.end())->first == std::ssize(rows) - 1),
           "the numbers are not 0 to " + to_string(rows.size() - 1));
    const auto stays = [&](const auto& known, const std::string& otherwise) {
      for (const auto& [index, fix] : known)
        expect(rows.contains(index) && rows.at(index) == fix, otherwise + ": " + to_string(index) + " " + fix);
    };
    stays(home.seen, "lost or changed");
    stays(received, "posted, and another now");
    for (const auto& [index, fix] : done) expect(received.contains(index), "never received: " + to_string(index));
    expect(std::ssize(rows) >= stored && std::ssize(done) >= acknowledged, "less than was reported");
    expect(!isLast || (done.size() == rows.size() && received.size() == rows.size()), "not all has arrived");
    for (const std::string& wrong :
         {"Locations WHERE abs(locationTimestamp - 1718409600 - " + second + ") > 0.01",
          std::string("Locations WHERE unsent = 0 AND sentWithoutACK = 1"), std::string("Users LIMIT -1 OFFSET 1"),
          std::string("PastTrips GROUP BY pasttrip_id HAVING count(*) > 1"),
          std::string("backend.users LIMIT -1 OFFSET 1")})
      expect(read("1, ''", wrong).empty(), "there is something in " + wrong);
    home.isRegistered = !read("1, uuid", "Users LIMIT 1").empty();
    home.seen = rows;
  }

  faults::Driver driver_;
  std::string what_, latest_;
  std::map<std::string, std::int64_t> places_[2];  ///< and how often each was reached, before and after registration
  std::set<std::string> hit_;
  std::int64_t kills_ = 0, starts_ = 0, atPlaces_ = 0;
  Microseconds longest_{std::chrono::milliseconds(100)};
};

}  // namespace

int main(int count, char** arguments) {
  if (count > 1 && std::strcmp(arguments[1], "host") == 0) return host(arguments);
  return Killer(count, arguments).run();
}
