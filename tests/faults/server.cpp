#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>

#include "faults/Driver.h"
#include "faults/ServerRows.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "support/FreshProcess.h"

// Each row is lived through by a host with the whole SDK, in a process of its own, before a server in a process of its
// own: the server does what the row says while the host collects, then is well again.

// Of the host's process: how fast time passes for the library, and what connecting and looking up a name end with.
static std::atomic<double> speed{1};
static timespec began{};
static std::atomic<int> local{0};

static double inSeconds(const timespec& time) { return double(time.tv_sec) + double(time.tv_nsec) / 1e9; }
static timespec inTime(double seconds) {
  const auto whole = static_cast<time_t>(seconds);
  return {whole, static_cast<long>((seconds - double(whole)) * 1e9)};
}

// These take the place of the system's for the whole program, libraries included.
extern "C" {
#define TARVO_VISIBLE [[gnu::visibility("default")]]
TARVO_VISIBLE int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const auto status = static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  if (clock == CLOCK_MONOTONIC && speed != 1)
    *time = inTime(inSeconds(began) + (inSeconds(*time) - inSeconds(began)) * speed);
  return status;
}
TARVO_VISIBLE int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                         const timespec* until) {
  static const auto original =
      reinterpret_cast<decltype(&pthread_cond_clockwait)>(::dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  timespec real = *until;
  if (clock == CLOCK_MONOTONIC && speed != 1)
    real = inTime(inSeconds(began) + (inSeconds(*until) - inSeconds(began)) / speed);
  return original(condition, mutex, clock, &real);
}
TARVO_VISIBLE int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  const int real = milliseconds > 0 ? std::max(1, static_cast<int>(milliseconds / speed)) : milliseconds;
  return static_cast<int>(::syscall(SYS_poll, descriptors, count, real));
}
TARVO_VISIBLE int connect(int socket, const sockaddr* address, socklen_t size) {
  int kind = 0;
  socklen_t bytes = sizeof kind;
  ::getsockopt(socket, SOL_SOCKET, SO_TYPE, &kind, &bytes);
  if (local <= 0 || kind != SOCK_STREAM || address->sa_family != AF_INET)
    return static_cast<int>(::syscall(SYS_connect, socket, address, size));
  errno = local;
  return -1;
}
TARVO_VISIBLE int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  static const auto original = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const bool ours = name != nullptr && std::string_view(name).ends_with(".test");
  if (ours && local < 0) return local;
  return original(ours ? "127.0.0.1" : name, service, hints, found);
}
}

namespace tarvo::faults {
namespace {

using platform::concat;
using platform::Seconds;
namespace fs = std::filesystem;

constexpr std::size_t kMostPositions = 256;
constexpr const char* kEndpoints[] = {"users",          "positions",       "predictions",
                                      "pasttrips",      "pois",            "userconf",
                                      "uplog",          "tokens",          "subscriptions/register",
                                      "tags/set",       "tags/unset",      "subscriptions/unregister",
                                      "resetbackend",   "resetgeoprofile", "elsewhere"};
constexpr std::size_t kCalls = std::size(kEndpoints);

/// What the processes of a row tell each other.
struct Shared {
  std::atomic<int> port{0}, row{-1};
  std::atomic<bool> well{true};
  std::atomic<int> asked[kCalls]{};                ///< while it was not
  std::atomic<int> received[kMostPositions]{};     ///< by number, while it was
  std::atomic<bool> mayBeMissing[kMostPositions]{};
  struct {
    std::int64_t stored, unsent, awaiting, acknowledged, withoutAnswer;
  } after[2]{};  ///< what a row has done; what has followed
};

struct Field {
  const char *endpoint, *key;
  /// The value is missing, of another type, null, huge, there twice: the SDK goes on, Stops, or has no User yet.
  const char* fates;
};
const Field kFields[] = {
    {"users", "success", "USSSS"},
    {"users", "results", "UUU-U"},
    {"users", "uuid", "USSUS"},
    {"users", "creation_date", "USS-S"},
    {"users", "secretkey", "U----"},
    {"positions", "success", "-SSSS"},
    {"positions", "last_prediction_id", "-SSSS"},
    {"positions", "last_pasttrip_id", "-SSSS"},
    {"positions", "last_poi_id", "-SSSS"},
    {"predictions", "success", "-SSSS"},
    {"predictions", "prediction_id", "-SSSS"},
    {"predictions", "start_time", "-SS-S"},
    {"predictions", "arrival_time", "-SS-S"},
    {"predictions", "probability", "-SS-S"},
    {"predictions", "destination_lon", "-SS-S"},
    {"predictions", "destination_lat", "-SS-S"},
    {"predictions", "route", "-SS-S"},
    {"predictions", "destination_json", "-SS-S"},
    {"predictions", "start_name", "-SS-S"},
    {"predictions", "arrival_name", "-SS-S"},
    {"predictions", "duration", "-SS-S"},
    {"pasttrips", "success", "-SSSS"},
    {"pasttrips", "trips", "-SS-S"},
    {"pasttrips", "pasttrip_id", "SSSSS"},
    {"pasttrips", "departure_lat", "-----"},
    {"pasttrips", "start_time", "-----"},
    {"pasttrips", "route", "-----"},
    {"pois", "success", "-SSSS"},
    {"pois", "pois", "-SS-S"},
    {"pois", "poi_id", "-----"},
    {"pois", "lat", "-----"},
    {"pois", "zone_geo_json", "-----"},
    {"userconf", "success", "-SSSS"},
    {"userconf", "results", "-----"},
    {"userconf", "log_level", "-----"},
    {"uplog", "success", "-----"},
    {"uplog", "results", "-----"},
    {"uplog", "file", "-----"}};
constexpr const char* kForms[] = {"missing", "another type", "null", "huge", "twice"};
/// What can become of any call, in the order of these: no answer, another status, nonsense.
constexpr const char* kWhole[] = {"no answer", "status 500", "no JSON"};

std::string goodAnswer(std::string_view endpoint, bool withDownloads) {
  if (endpoint == "users")
    return R"({"success":true,"results":[{"uuid":"u-1","creation_date":"2024-06-15","secretkey":"s3cret"}]})";
  if (endpoint == "positions")
    return withDownloads ? R"({"success":true,"last_prediction_id":8,"last_pasttrip_id":7,"last_poi_id":3})" : kGood;
  if (endpoint == "predictions")
    return R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,)"
           R"("destination_lon":2.5,"destination_lat":48,"route":{"r":1},"destination_json":{"d":2},)"
           R"("start_name":"Home","arrival_name":"Work","duration":12.5})";
  if (endpoint == "pasttrips")
    return R"({"success":true,"trips":[{"pasttrip_id":7,"departure_lat":48,"departure_lon":11,"arrival_lat":48,)"
           R"("arrival_lon":11,"start_time":"2024-06-15T10:00:00.000+0000","route":{"type":"LineString"}}]})";
  if (endpoint == "pois")
    return R"({"success":true,"pois":[{"poi_id":3,"lat":48,"lon":11,"point_geo_json":{},"zone_geo_json":{"z":1}}]})";
  if (endpoint == "userconf") return R"({"success":true,"results":[{"log_level":10}]})";
  if (endpoint == "uplog") return R"({"success":true,"results":"uploaded","file":"TarvoLog_2024-06-01_u_IOS.txt"})";
  return R"({"success":true})";
}

/// The answer with that form of that field.
std::string answerWith(const Field& field, std::size_t form) {
  std::string answer = goodAnswer(field.endpoint, true);
  const std::string key = concat("\"", field.key, "\":");
  const auto begin = answer.find(key) + key.size();
  auto end = begin;
  for (int depth = 0; depth > 0 || (answer[end] != ',' && answer[end] != '}'); ++end)
    depth += answer[end] == '[' || answer[end] == '{' ? 1 : answer[end] == ']' || answer[end] == '}' ? -1 : 0;
  const std::string value = answer.substr(begin, end - begin), other = value[0] == '"' ? "[7]" : "\"other\"";
  std::string huge = "1e300";
  if (value[0] == '"') huge = '"' + std::string(1 << 20, 'x') + '"';
  if (value[0] == '[') huge = "[" + repeated(value.substr(1, value.size() - 2) + ",", 30) + value.substr(1);
  if (value[0] == '{') huge = "{" + repeated("\"more\":[0,1],", 10000) + value.substr(1);
  const std::string forms[] = {{}, other, "null", huge, value + "," + key + other};
  if (form == 0) return answer.replace(answer.find(key) + 1, 1, "_");
  return answer.replace(begin, end - begin, forms[form]);
}

std::vector<Row> allRows() {
  std::vector<Row> rows = rowsOfTransfers();
  for (const Field& field : kFields)
    for (std::size_t form = 0; form < std::size(kForms); ++form) {
      const char fate = field.fates[form];
      const bool noSuccess = field.endpoint == std::string("positions") && field.key == std::string("success");
      const bool noUser = field.endpoint == std::string("users") && fate != '-';
      Row row{"", {}, fate == 'S' ? stops : fate == 'U' ? stays : acknowledged,
              noSuccess || noUser ? stays : acknowledged, fate == 'S' ? "Fatal error: " : ""};
      row.endpoint = field.endpoint;
      row.field = field.key;
      row.form = kForms[form];
      row.reply = httpReply(200, answerWith(field, form));
      rows.push_back(std::move(row));
    }
  const std::string replies[] = {"", httpReply(500), httpReply(200, "nonsense")};
  for (const char* endpoint : kEndpoints)
    for (std::size_t form = 0; form < std::size(kWhole); ++form) {
      if (endpoint == std::string("positions") || endpoint == std::string("elsewhere")) continue;
      const Fate fate = endpoint == std::string("users") ? stays : acknowledged;
      Row row{"", {}, fate, fate, ""};
      row.endpoint = endpoint;
      row.form = kWhole[form];
      row.reply = replies[form];
      rows.push_back(std::move(row));
    }
  return rows;
}

const std::vector<Row>& rows() {
  static const auto* all = new std::vector<Row>(allRows());
  return *all;
}

bool isDownload(std::string_view endpoint) {
  return endpoint == "predictions" || endpoint == "pasttrips" || endpoint == "pois";
}

class Server {
 public:
  Server(Shared& shared, bool withDownloads) : shared_(shared), withDownloads_(withDownloads) {
    shared_.port = std::stoi(server_.port);
  }

 private:
  void serve(Connection& connection) {
    const int number = shared_.row;
    if (number >= 0 && rows()[number].act) {
      ++shared_.asked[1];
      return rows()[number].act(connection);
    }
    test::answerAsAnyHost(connection, {certificates().server}, [this, number](const std::string& request) {
      return answer(request, number);
    });
  }
  std::string answer(const std::string& request, int number) {
    const auto begin = request.find("/v1/demo/") + 9;
    const std::string endpoint = request.substr(begin, request.find_first_of(" ?", begin) - begin);
    const auto call = std::find(std::begin(kEndpoints), std::end(kEndpoints) - 1, endpoint) - kEndpoints;
    if (number >= 0) ++shared_.asked[call];
    if (number >= 0 && rows()[number].endpoint == endpoint) return rows()[number].reply;
    static constexpr std::string_view kIndex = "\"unique_position_id_for_app\":\"";
    for (auto at = request.find(kIndex); at != request.npos; at = request.find(kIndex, at + 1))
      ++shared_.received[std::stoul(request.substr(at + kIndex.size()))];
    return httpReply(200, goodAnswer(endpoint, withDownloads_));
  }

  Shared& shared_;
  const bool withDownloads_;
  test::RawServer server_{[this](Connection& connection) { serve(connection); }};
};

/// The whole SDK of one process, on a clock that moves by itself only for the silence of servers.
class Host {
 public:
  Host(Shared& shared, const fs::path& home, const Row& row, bool confirmed, double now)
      : shared_(shared), clock_(std::make_shared<platform::ManualClock>(platform::dateSince1970(now))) {
    ::clock_gettime(CLOCK_MONOTONIC, &began);
    speed = row.speed;
    platform::setHomeDirectory(home);
    platform::Clock::install(clock_);
    static std::ofstream log(home / "log", std::ios::app);
    static std::mutex mutex;
    platform::setSystemLogSink([](std::string_view message) {
      const std::lock_guard lock(mutex);
      log << message.substr(0, 500) << std::endl;
    });
    std::string url = row.url;
    url.replace(url.find("PORT"), 4, std::to_string(shared.port));
    if (!platform::setInfoDictionary(
            {{"CFBundleIdentifier", "org.example.host"}, {"TarvoApiKey", "key"}, {"TarvoClientID", "demo"}}) ||
        !LocationManager::setRemoteWebServerURL(url + "/api", true))
      std::abort();
    Tarvo::setDeliveryOptions({.confirmed = confirmed, .dropsProtocolBreaks = confirmed});
  }

  /// Registered, unless the row is about that, and past the first 180 seconds.
  void start(int row) {
    if (row >= 0 && rows()[row].endpoint == "users") begin(row);
    tarvo_.emplace();
    NetworkManager::setApiKeySecret("secret");
    tarvo_->activate(Tarvo::BACKEND_GEOPROFILE);
    idle();
    clock_->advance(Seconds(180));
  }
  void begin(int row) {
    local = rows()[row].local;
    shared_.row = row;
    shared_.well = false;
  }
  /// What the row says happens to so many fixes, and to what else a host does.
  void live(int row, int fixes) {
    begin(row);
    const Row& lived = rows()[row];
    isHeldUp_ = lived.byDefault == waits;
    for (int i = 0; i < fixes; ++i) fix();
    if (lived.endpoint != "positions") callEverything();
    shared_.row = -1;
    shared_.well = true;
    local = 0;
  }
  void recover() {
    isHeldUp_ = false;
    fix();
    callEverything();
    for (int pass = 0; pass < 20; ++pass) {
      const auto status = engine().syncStatus();
      if (status.unsent + status.awaiting == 0) return;
      clock_->advance(Seconds(900));
      engine().sendDataInBatchToRemoteWebServer();
      idle();
    }
  }
  void report(int which) {
    const auto status = engine().syncStatus();
    std::int64_t given = 0;
    for (const auto& range : tarvo_->health().positions.acknowledgedWithoutAnswer) given += range.last - range.first + 1;
    shared_.after[which] = {status.stored, status.unsent, status.awaiting, status.acknowledged, given};
  }

 private:
  static LocationManager& engine() { return LocationManager::sharedInstance(); }
  void idle() { platform::WorkInFlight::waitUntilIdle(Seconds((isHeldUp_ ? 0.15 : 5) * speed)); }
  void fix() {
    clock_->advance(Seconds(1));
    latitude_ += 0.001;
    platform::LocationService::shared().deliver({{.coordinate = {latitude_, 11.5},
                                                  .altitude = 500,
                                                  .horizontalAccuracy = 10,
                                                  .verticalAccuracy = 10,
                                                  .course = 0,
                                                  .speed = 3,
                                                  .timestamp = clock_->now()}});
    idle();
  }
  void callEverything() {
    std::ofstream(platform::documentDirectories().front() / "TarvoLog_2024-06-01_u_IOS.txt") << "line";
    tarvo_->didRegisterForRemoteNotificationsWithDeviceToken("t0k");
    tarvo_->setSubscription("s", "{}");
    tarvo_->setUnSubscription("t");
    tarvo_->resetBackendHistory();
    tarvo_->resetGeoProfileHistory();
    tarvo_->setSET_TAGS_LIST({{"a", "b"}});
    tarvo_->setUNSET_TAGS_LIST({"c"});
    tarvo_->didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
    idle();
  }

  Shared& shared_;
  std::shared_ptr<platform::ManualClock> clock_;
  std::optional<Tarvo> tarvo_;
  double latitude_ = 48;
  bool isHeldUp_ = false;
};

constexpr double kStart = 1718445600, kDay = 86400;

/// One life of a device, judged in a process of its own: the rows of the plan, then a server that is well.
class Life {
 public:
  Life(std::vector<int> plan, bool confirmed, Driver& driver) : plan_(std::move(plan)), confirmed_(confirmed), driver_(driver) {}

  int run() {
    const int server = startServer();
    const int fixes = plan_.size() > 1 ? 2 : row().act || row().local != 0 ? 3 : 1;
    const int end = test::inFreshProcess([&] {
      Host host(shared_, home_.path(), row(), confirmed_, kStart);
      host.start(plan_.front());
      for (const int lived : plan_) host.live(lived, fixes);
      host.report(0);
      host.recover();
      host.report(1);
      return 0;
    });
    shared_.row = -1;
    shared_.well = true;
    if (end != 0) {
      const int next = test::inFreshProcess([&] {
        Host host(shared_, home_.path(), row(), confirmed_, kStart + kDay);
        host.start(-1);
        host.recover();
        host.report(1);
        return 0;
      });
      expect(next == 0, "the next process ends with", next);
    }
    rusage used{};
    ::getrusage(RUSAGE_CHILDREN, &used);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    expect(used.ru_maxrss < 200'000, "kilobytes of memory:", used.ru_maxrss);
#endif
    ::close(stopServer_);
    test::endOf(server);
    judge(end, fixes);
    return failed_ ? 1 : 0;
  }

 private:
  const Row& row() const { return rows()[plan_.front()]; }
  Fate fateOf(int number) const { return confirmed_ ? rows()[number].confirmed : rows()[number].byDefault; }

  int startServer() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    const int process = test::startProcess([&]() -> int {
      ::close(ends[1]);
      serverIsWell = &shared_.well;
      const Server server(shared_, isDownload(row().endpoint));
      char none;
      [[maybe_unused]] const auto closed = ::read(ends[0], &none, 1);  // when nobody is left
      ::_exit(0);
    });
    ::close(ends[0]);
    stopServer_ = ends[1];
    while (shared_.port == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return process;
  }

  void judge(int end, int fixes) {
    const bool single = plan_.size() == 1;
    const auto& [bad, then] = shared_.after;
    const Fate fate = fateOf(plan_.front());
    expect(end == (fate == stops ? -SIGABRT : 0), "the process ends with", end);
    const int triggers = fixes * static_cast<int>(plan_.size());
    for (std::size_t call = 0; call < kCalls; ++call) {
      const bool perFix = call >= 1 && call <= 4;
      const int most = (perFix ? triggers + (row().endpoint != "positions") : triggers + 3);
      expect(shared_.asked[call] <= most, kEndpoints[call], "requests:", shared_.asked[call].load());
    }
    if (single && fate != stops) {
      const std::int64_t done = fate == acknowledged || fate == givenUp ? bad.stored : 0;
      expect(bad.stored >= fixes, "stored:", bad.stored);
      expect(bad.acknowledged == done, "acknowledged:", bad.acknowledged, "of", bad.stored);
      expect(bad.withoutAnswer == (fate == givenUp ? done : 0), "without an answer:", bad.withoutAnswer);
      expect(fate != waits || bad.awaiting > 0, "awaiting:", bad.awaiting);
    }
    expect(then.stored > fixes && then.acknowledged == then.stored, "at last acknowledged:", then.acknowledged, "of", then.stored);
    const bool mayMiss = std::ranges::any_of(plan_, [&](int n) { return row().endpoint == "positions" && fateOf(n) != stays && fateOf(n) != stops && (fateOf(n) != waits || !confirmed_); });
    std::int64_t received = 0;
    for (std::int64_t i = 0; i < then.stored; ++i) received += shared_.received[i] > 0;
    expect(mayMiss || received == then.stored, "received:", received, "of", then.stored);
    expect(received > 0, "nothing received");
    if (single && !row().logged.empty() && (fate == stops || !confirmed_)) {
      const std::string line = row().logged[0] == ':' || row().logged[0] == '[' ? concat("NetworkManager:sendDataInBatchToRemoteWebServer ", row().logged) : row().logged;
      std::ifstream file(home_.path() / "log");
      std::string text, all;
      bool found = false;
      while (std::getline(file, text)) {
        found = found || text.find(line) < 2;
        if (text.find("sendDataInBatchToRemoteWebServer") != text.npos && text.find("CALLED") == text.npos) all += "\n  " + text.substr(0, 200);
      }
      expect(found, "not in the log:", line + all);
    }
  }

  template <class... Parts>
  void expect(bool holds, const Parts&... parts) {
    if (holds) return;
    failed_ = true;
    std::string text = confirmed_ ? "confirmed" : "default";
    for (const int number : plan_)
      text += concat(", ", rows()[number].what, rows()[number].act ? "" : concat(rows()[number].endpoint, " ", rows()[number].field, " ", rows()[number].form));
    driver_.expect(false, concat(text, ":", concat(" ", parts)...));
  }

  const std::vector<int> plan_;
  const bool confirmed_;
  Driver& driver_;
  Shared& shared_ = *new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  const test::TempDir home_;
  int stopServer_ = -1;
  bool failed_ = false;
};

int drive(int count, char** arguments) {
  Driver driver("server", count, arguments, 0);
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::signal(SIGPIPE, SIG_IGN);
  certificates();
  std::int64_t done = 0;
  int running = 0;
  const auto reap = [&] {
    int status = 0;
    if (::wait(&status) > 0) --running;
    driver.expect(status == 0, "a row does not hold");
  };
  const auto start = [&](const std::vector<int>& plan, bool confirmed) {
    if (running == 2) reap();
    ++running;
    ++done;
    test::startProcess([&] { return Life(plan, confirmed, driver).run(); });
  };
  const char* only = ::getenv("ROW");
  const int all = static_cast<int>(rows().size());
  for (int i = 0; i < all && driver.runs == 0; ++i)
    for (const bool confirmed : {false, true}) {
      if (confirmed && !::getenv("CONFIRMED")) continue;
      if (only && rows()[i].what.find(only) == std::string::npos && rows()[i].endpoint + " " + rows()[i].field + " " + rows()[i].form != only) continue;
      start({i}, confirmed);
    }
  while (running > 0) reap();
  return driver.end(done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::drive(count, arguments); }
