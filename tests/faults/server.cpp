#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <fstream>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>

#include "faults/Driver.h"
#include "faults/ServerAnswers.h"
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
  if (clock == CLOCK_MONOTONIC && began.tv_sec != 0)
    *time = inTime(inSeconds(began) + (inSeconds(*time) - inSeconds(began)) * speed);
  return status;
}
TARVO_VISIBLE int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                         const timespec* until) {
  static const auto original =
      reinterpret_cast<decltype(&pthread_cond_clockwait)>(::dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
  timespec real = *until;
  if (clock == CLOCK_MONOTONIC && began.tv_sec != 0)
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

using platform::Seconds;
namespace fs = std::filesystem;

constexpr std::size_t kMostPositions = 256;
constexpr std::size_t kCalls = std::size(kEndpoints);

/// What the processes of a row tell each other.
struct Shared {
  std::atomic<int> port{0}, row{-1};
  std::atomic<bool> well{true};
  std::atomic<int> asked[kCalls]{};             ///< while it was not
  std::atomic<int> received[kMostPositions]{};  ///< by number, while it was
  std::atomic<bool> mayBeMissing[kMostPositions]{};
  struct {
    std::int64_t stored, unsent, awaiting, acknowledged, withoutAnswer;
  } after[2]{};  ///< what a row has done; what has followed
};

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
    test::answerAsAnyHost(connection, {certificates().server}, [this, number, &connection](const std::string& request) {
      std::string reply = answer(request, number);
      if (reply.empty()) ::shutdown(connection.socket, SHUT_RDWR);
      return reply;
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
    if (row >= 0 && (rows()[row].endpoint == "users" || rows()[row].local < 0)) begin(row);
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
    upload();  // what the last fix came too late for
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
      upload();
    }
  }
  void report(int which) {
    const auto status = engine().syncStatus();
    std::int64_t given = 0;
    for (const auto& range : tarvo_->health().positions.acknowledgedWithoutAnswer)
      given += range.last - range.first + 1;
    shared_.after[which] = {status.stored, status.unsent, status.awaiting, status.acknowledged, given};
  }

 private:
  static LocationManager& engine() { return LocationManager::sharedInstance(); }
  void idle() { platform::WorkInFlight::waitUntilIdle(Seconds(isHeldUp_ ? 0.15 * speed : speed > 1 ? 5 * speed : 60)); }
  void upload() {
    engine().sendDataInBatchToRemoteWebServer();
    idle();
  }
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
  Life(std::vector<int> plan, bool confirmed, Driver& driver)
      : plan_(std::move(plan)), confirmed_(confirmed), driver_(driver) {}

  int run() {
    const int server = startServer();
    const int fixes = plan_.size() > 1 ? 2 : row().act || row().local != 0 ? 3 : 1;
    if (row().local < 0) liveOn(kStart - kDay, false);  // or the name would be remembered from the registration
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
    if (end != 0) liveOn(kStart + kDay, true);
    rusage used{};
    ::getrusage(RUSAGE_CHILDREN, &used);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    expect(used.ru_maxrss < 300'000, "kilobytes of memory:", used.ru_maxrss);
#endif
    ::close(stopServer_);
    test::endOf(server);
    judge(end, fixes);
    return failed_ ? 1 : 0;
  }

 private:
  const Row& row() const { return rows()[plan_.front()]; }
  Fate fateOf(int number) const { return confirmed_ ? rows()[number].confirmed : rows()[number].byDefault; }

  /// Another process of the same device, before a server that is well.
  void liveOn(double now, bool toTheEnd) {
    const int end = test::inFreshProcess([&] {
      Host host(shared_, home_.path(), row(), confirmed_, now);
      host.start(-1);
      if (toTheEnd) host.recover();
      host.report(1);
      return 0;
    });
    expect(end == 0, "another process ends with", end);
  }

  int startServer() {
    int ends[2];
    if (::pipe(ends) != 0) std::abort();
    const int process = test::startProcess([&]() -> int {
      ::close(ends[1]);
      serverIsWell = &shared_.well;
      timesAsked = &shared_.asked[1];
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
    const int triggers = (fixes + 1) * static_cast<int>(plan_.size());
    for (std::size_t call = 0; call < kCalls; ++call) {
      const bool perFix = call >= 1 && call <= 4;
      const int most = triggers + (perFix ? row().endpoint != "positions" : 3);
      expect(shared_.asked[call] <= most, kEndpoints[call], "requests:", shared_.asked[call].load());
    }
    if (single && fate != stops) {
      const std::int64_t done = fate == acknowledged || fate == givenUp ? bad.stored : 0;
      expect(bad.stored >= fixes, "stored:", bad.stored);
      expect(bad.acknowledged == done, "acknowledged:", bad.acknowledged, "of", bad.stored);
      expect(bad.withoutAnswer == (fate == givenUp ? done : 0), "without an answer:", bad.withoutAnswer);
      expect(fate != waits || bad.awaiting > 0, "awaiting:", bad.awaiting);
    }
    expect(then.stored > fixes && then.acknowledged == then.stored, "at last acknowledged:", then.acknowledged, "of",
           then.stored);
    const bool mayMiss = std::ranges::any_of(plan_, [&](int n) {
      return row().endpoint == "positions" && fateOf(n) != stays && fateOf(n) != stops &&
             (fateOf(n) != waits || !confirmed_);
    });
    std::int64_t received = 0;
    for (std::int64_t i = 0; i < then.stored; ++i) received += shared_.received[i] > 0;
    expect(mayMiss || received == then.stored, "received:", received, "of", then.stored);
    expect(received > 0, "nothing received");
    expect(!single || fate != givenUp || received + then.withoutAnswer >= then.stored, "lost and not told:", received);
    std::string expected = row().logged;
    if (confirmed_ && row().byDefault == stops) expected = expected.substr(std::string_view("Fatal error: ").size());
    if (confirmed_ && fate == stays && row().endpoint == "positions") expected = "[net] not confirmed, ";
    if (single && !expected.empty()) {
      const bool isOfCall = expected[0] == ':' || expected[0] == '[';
      const auto line = concat(isOfCall ? "NetworkManager:sendDataInBatchToRemoteWebServer " : "", expected);
      std::ifstream file(home_.path() / "log");
      bool found = false;
      for (std::string text; std::getline(file, text);) found = found || text.find(line) < 2;
      expect(found, "not in the log:", line);
    }
  }

  template <class... Parts>
  void expect(bool holds, const Parts&... parts) {
    if (holds) return;
    failed_ = true;
    std::string text = confirmed_ ? "confirmed" : "default";
    for (const int number : plan_) text += ", " + rows()[number].what;
    driver_.expect(false, concat(text, ":", concat(" ", parts)...));
  }

  const std::vector<int> plan_;
  const bool confirmed_;
  Driver& driver_;
  Shared& shared_ =
      *new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  const test::TempDir home_;
  int stopServer_ = -1;
  bool failed_ = false;
};

/// How often a position is tried again at a fix a second: in the first hour, then in each. What the design has it, or
/// by the expected waits of `DeliveryOptions::confirmed`.
std::string triesPerHour(const Row& row, bool confirmed) {
  const Fate fate = confirmed ? row.confirmed : row.byDefault;
  if (fate == waits) return "20";
  if (fate != stays) return "0";
  if (!confirmed) return row.speed > 1 ? "60" : "3600";
  constexpr double kBound = 900, kUntilNextFix = 0.5;
  const double least = row.wait == longest ? kBound : row.wait == minute ? 60 : 0, takes = row.wait == silence ? 60 : 0;
  const auto span = [&](int failures) {
    const double bound = std::min(kBound, std::exp2(failures));
    const double wait = bound <= least ? least : (bound * bound + least * least) / (2 * bound);
    return wait + takes + kUntilNextFix;
  };
  int tries = 0;
  for (double time = span(0); time < 3600; time += span(++tries)) continue;
  return concat(tries, ", then ", std::llround(3600 / span(99)));
}

std::string markdown() {
  static constexpr const char* kFates[] = {"acknowledged", "**acknowledged**, no answer", "stays", "waits",
                                           "**stops**"};
  std::string text =
      "| server | log | by default | confirmed | again per hour | confirmed |\n|---|---|---|---|---|---|\n";
  std::string what, rest;
  for (const Row& row : rows()) {
    const auto columns =
        concat(" | ", row.logged.empty() ? "" : concat("`", row.logged, "`"), " | ", kFates[row.byDefault], " | ",
               kFates[row.confirmed], " | ", triesPerHour(row, false), " | ", triesPerHour(row, true), " |\n");
    const bool isAlike = row.form.empty() && columns == rest;
    if (!isAlike && !what.empty()) text += "| " + std::exchange(what, {}) + rest;
    if (!row.form.empty()) break;
    what += isAlike ? "; " + row.what : row.what;
    rest = columns;
  }
  const auto cell = [](const Row& row) {
    return row.byDefault == stops ? " **stops** |" : row.byDefault == stays ? " no user |" : " goes on |";
  };
  text += "\n| answer to | field | missing | another type | null | huge | twice |\n|---|---|---|---|---|---|---|\n";
  for (const Row& row : rows()) {
    if (row.field.empty()) continue;
    if (row.form == kForms[0]) text += concat("| `", row.endpoint, "` | ", row.field, " |");
    text += concat(cell(row), row.form == std::end(kForms)[-1] ? "\n" : "");
  }
  text += "\n| call | no answer | status 500 | no JSON |\n|---|---|---|---|\n";
  for (const Row& row : rows()) {
    if (!row.field.empty() || row.form.empty()) continue;
    if (row.form == kWhole[0]) text += concat("| `", row.endpoint, "` |");
    text += concat(cell(row), row.form == std::end(kWhole)[-1] ? "\n" : "");
  }
  return text;
}

int drive(int count, char** arguments) {
  Driver driver("server", count, arguments, 0);
  certificates();
  if (count == 2 && arguments[1] == std::string_view("--markdown")) {
    std::cout << markdown();
    return 0;
  }
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::signal(SIGPIPE, SIG_IGN);
  ::setenv("no_proxy", "*", 1);
  std::int64_t done = 0;
  int running = 0;
  const auto reap = [&] {
    int status = 0;
    if (::wait(&status) > 0) --running;
    driver.expect(status == 0, "a row does not hold");
  };
  const auto live = [&](const std::vector<int>& plan, bool confirmed) {
    if (running == 2) reap();
    ++running;
    ++done;
    test::startProcess([&] { return Life(plan, confirmed, driver).run(); });
  };
  const int all = static_cast<int>(rows().size());
  for (int i = 0; i < all && driver.runs == 0; ++i)
    for (const bool confirmed : {false, true})
      if (count != 3 || rows()[i].what == arguments[2]) live({i}, confirmed);  // --row WHAT
  for (std::int64_t run = 0; run < driver.runs; ++run) {
    std::vector<int> plan;
    for (auto left = 2 + driver.upTo(6); left > 0;) {
      const int number = static_cast<int>(driver.upTo(all - 1));
      const Row& row = rows()[number];
      if (!row.act || row.speed != 1 || row.url != rows()[0].url) continue;
      plan.push_back(number);
      --left;
    }
    live(plan, driver.upTo(1) == 1);
  }
  while (running > 0) reap();
  std::ifstream file(fs::path(TARVO_SOURCE_DIR) / "docs/delivery.md");
  const std::string document(std::istreambuf_iterator<char>(file), {});
  driver.expect(document.find(markdown()) != document.npos, "docs/delivery.md lacks what --markdown prints");
  return driver.end(done);
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::drive(count, arguments); }
