// Each behaviour of a server is lived through by a host with the whole SDK, in a process of its own, before a server in
// a process of its own: the server does what the row says while the host collects, then is well again.

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cmath>
#include <numeric>
#include <regex>

#include "faults/Rows.h"
#include "faults/ServerRows.h"

// Of the host's process: how fast time passes for the library, and what connecting and looking up a name end with.
static std::atomic<double> speed{1};
static double began = 0;
static std::atomic<int> local{0};

static double monotonic(timespec* time) {
  ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, time);
  return double(time->tv_sec) + double(time->tv_nsec) / 1e9;
}

#pragma GCC visibility push(default)  // these take the place of the system's for the libraries too
extern "C" {
int clock_gettime(clockid_t clock, timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || speed == 1) return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  double whole = 0;
  time->tv_nsec = static_cast<long>(std::modf(began + (monotonic(time) - began) * speed, &whole) * 1e9);
  time->tv_sec = static_cast<time_t>(whole);
  return 0;
}
int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  const int real = milliseconds > 0 ? std::max(1, static_cast<int>(milliseconds / speed)) : milliseconds;
  return static_cast<int>(::syscall(SYS_poll, descriptors, count, real));
}
int connect(int socket, const sockaddr* address, socklen_t size) {
  if (local <= 0 || address->sa_family != AF_INET)
    return static_cast<int>(::syscall(SYS_connect, socket, address, size));
  errno = local;
  return -1;
}
int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  static const auto original = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  const bool ours = name != nullptr && std::string_view(name).ends_with(".test");
  return ours && local < 0 ? local.load() : original(ours ? "127.0.0.1" : name, service, hints, found);
}
}
#pragma GCC visibility pop

namespace tarvo::faults {
namespace {

using platform::Seconds;

/// Nothing for an answer that does not come.
std::string answer(const Behaviour& row, const std::string& request) {
  const bool isOn = shared->isOn;
  const auto begin = request.find("/v1/demo/") + 9;
  const std::string endpoint = request.substr(begin, request.find_first_of(" ?", begin) - begin);
  const Call* call = std::find_if(std::begin(kCalls), std::end(kCalls) - 1,
                                  [&](const Call& known) { return known.endpoint == endpoint; });
  ++shared->asked[call - kCalls];
  if (isOn && row.endpoint == endpoint) return row.reply;
  static constexpr std::string_view kIndex = "\"unique_position_id_for_app\":\"";
  for (auto at = request.find(kIndex); at != request.npos; at = request.find(kIndex, at + 1))
    shared->received.at(std::stoul(request.substr(at + kIndex.size()))) = true;
  // While a row lasts there is a newer one of everything.
  return httpReply(200, isOn ? std::regex_replace(call->good, std::regex(":0"), ":100") : call->good);
}

void serve(const Behaviour& row, Connection& connection) {
  if (shared->isOn && row.act) {
    ++shared->asked[1];
    return row.act(connection);
  }
  test::answerAsAnyHost(connection, {certificates->server}, [&](const std::string& request) {
    const std::string reply = answer(row, request);
    if (reply.empty()) ::shutdown(connection.socket, SHUT_RDWR);
    return reply;
  });
}

/// The SDK of one process before that server, on a clock that moves by itself only for the silence of servers.
class Life {
 public:
  /// Registered, unless the row is about that, and past the first 180 seconds.
  Life(Host& host, const Behaviour& row, bool confirmed, bool isOn) : host_(host), row_(row), confirmed_(confirmed) {
    const std::string port = std::to_string(shared->port);
    LocationManager::setRemoteWebServerURL(std::regex_replace(row.url, std::regex("PORT"), port) + "/api", true);
    Tarvo::setDeliveryOptions({.confirmed = confirmed, .dropsProtocolBreaks = confirmed});
    if (isOn && (row.endpoint == "users" || row.local < 0)) begin();
    tarvo_ = host.registered(Tarvo::BACKEND_GEOPROFILE);
    timespec now{};
    began = monotonic(&now);
    speed = row.speed;
  }

  /// What the row says happens to fixes, and to what else a host does.
  void live() {
    const auto before = positions();
    if (!shared->isOn) begin();
    for (int i = 0; i < row_.fixes; ++i) fix();
    if (row_.endpoint != "positions") callEverything();
    pass();  // what the last fix came too late for
    judge(before);
    shared->isOn = false;
    local = 0;
    idle();
    if (row_.endpoint == "positions") lost_ = positions().acknowledged - before.acknowledged + withoutAnswer(before);
  }
  /// The server is well: all that has not been given up arrives.
  void recover() {
    fix();
    callEverything();
    for (int i = 0; i < 20 && positions().acknowledged < positions().stored; ++i) {
      pass();
      host_.clock->advance(Seconds(900));
    }
    EXPECT_EQ(positions().acknowledged, positions().stored);
    const auto received = std::accumulate(shared->received.begin(), shared->received.end(), std::int64_t{0});
    EXPECT_GT(received, 0);
    EXPECT_GE(received + lost_, positions().stored);
  }

 private:
  void begin() {
    for (auto& asked : shared->asked) asked = 0;
    host_.diary.clear();
    local = row_.local;
    shared->isOn = true;
  }
  void judge(const Health::Positions& before) const {
    const std::string& fate = row_.fate[confirmed_];
    for (std::size_t call = 0; call < std::size(kCalls); ++call) {
      const bool perFix = call >= 1 && call <= 4, isOfRow = row_.endpoint == kCalls[call].endpoint && row_.local == 0;
      const int most = row_.fixes + 1 + (perFix ? row_.endpoint != "positions" : 3);
      EXPECT_LE(shared->asked[call], most) << kCalls[call].endpoint;
      EXPECT_GE(shared->asked[call], int(isOfRow)) << kCalls[call].endpoint;
    }
    const auto now = positions();
    const auto done = now.acknowledged - before.acknowledged;
    EXPECT_GE(now.stored, before.stored + row_.fixes);
    EXPECT_EQ(done, fate == kAcknowledged || fate == kGivenUp ? now.stored - before.acknowledged : 0);
    EXPECT_EQ(withoutAnswer(now) - withoutAnswer(before), fate == kGivenUp ? done : 0);
    EXPECT_TRUE(fate != kWaits || now.awaiting > 0);
    std::string line = row_.logged;
    if (confirmed_ && fate == kStays && row_.endpoint == "positions") line = "[net] not confirmed, ";
    if (line[0] == ':' || line[0] == '[') line = "NetworkManager:sendDataInBatchToRemoteWebServer " + line;
    EXPECT_GT(host_.diary.count(line), 0u) << line;
    EXPECT_TRUE(row_.triesPerHour[0].empty() || row_.triesPerHour[confirmed_] == triesPerHour(fate)) << "tries";
  }
  /// At a fix a second; two numbers: in the first hour, then in each, by the means of the waits that this one begins.
  std::string triesPerHour(const std::string& fate) const {
    if (fate != kStays) return fate == kWaits ? "20" : "0";
    const auto next = tarvo_->health().delivery.nextTry;
    EXPECT_EQ(next.has_value(), confirmed_);
    if (!next) return row_.speed > 1 ? "60" : "3600";
    const double wait = Seconds(*next - host_.clock->now()).count();
    return wait > 899 ? "3, then 4" : wait > 59 ? "15, then 8" : row_.speed > 1 ? "14, then 7" : "16, then 8";
  }
  static std::int64_t withoutAnswer(const Health::Positions& positions) {
    std::int64_t given = 0;
    for (const auto& [first, last] : positions.acknowledgedWithoutAnswer) given += last - first + 1;
    return given;
  }
  Health::Positions positions() const { return tarvo_->health().positions; }
  void idle() const {
    const bool isHeldUp = shared->isOn && row_.fate[0] == kWaits;
    platform::WorkInFlight::waitUntilIdle(Seconds((isHeldUp ? 0.5 : 60) * speed));
  }
  void pass() const {
    Host::engine().sendDataInBatchToRemoteWebServer();
    idle();
  }
  void fix() {
    host_.clock->advance(Seconds(1));
    platform::LocationService::shared().deliver(
        {Host::fixAt(latitude_ += 0.001, platform::secondsSince1970(host_.clock->now()))});
    idle();
  }
  void callEverything() {
    std::ofstream(platform::documentDirectories().front() / "TarvoLog_2024-06-01_u_IOS.txt") << "line";
    tarvo_->setApiKeySecret("secret");  // registers, if it is still to be done
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

  Host& host_;
  const Behaviour& row_;
  const bool confirmed_;
  std::optional<Tarvo> tarvo_;
  double latitude_ = 48;
  std::int64_t lost_ = 0;  ///< acknowledged by a server that was not well
};

/// The row, then a server that is well, for which a process that the row has stopped starts again.
void live(Host& host, const Behaviour& row, bool confirmed) {
  shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  ::sem_init(&shared->isListening, 1, 0);
  const pid_t server = test::startProcess([&row] {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const test::RawServer listening([&row](Connection& connection) { serve(row, connection); });
    shared->port = std::stoi(listening.port);
    ::sem_post(&shared->isListening);
    return ::pause();
  });
  ::sem_wait(&shared->isListening);
  const auto process = [&](bool isOn) {
    const int end = test::inFreshProcess([&] {
      Life life(host, row, confirmed, isOn);
      if (isOn) life.live();
      life.recover();
      return int(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed());
    });
    host.clock->advance(Seconds(86400));
    shared->isOn = false;
    return end;
  };
  EXPECT_TRUE(row.local >= 0 || process(false) == 0);  // or the name would be remembered from the registration
  const bool hasToStop = !confirmed && row.fate[0] == kStops;
  EXPECT_EQ(process(true), hasToStop ? -SIGABRT : 0);
  if (hasToStop) {
    EXPECT_NE(bytesOf("/proc/self/fd/2").find("Fatal error: " + row.logged), std::string::npos) << row.logged;
    EXPECT_EQ(process(false), 0);
  }
  ::kill(server, SIGKILL);
  test::endOf(server);
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

int drive(Driver driver) {
  const Certificates made;
  certificates = &made;
  ::signal(SIGPIPE, SIG_IGN);
  ::setenv("no_proxy", "*", 1);
  const auto all = behaviours();
  std::vector<Row> rows;
  for (const Behaviour& row : all)
    for (const bool confirmed : {false, true})
      if (!confirmed || row.endpoint == "positions" || row.fate[1] != row.fate[0])  // else nothing differs
        rows.push_back({.name = row.what + (confirmed ? ", confirmed" : ", by default"),
                        .body = [&row, confirmed](Host& host) { live(host, row, confirmed); },
                        .isQuiet = confirmed || row.fate[0] != kStops,
                        .keepsLog = true});
  driver.expect(rows.size() > 450, "docs/delivery.md has lost rows");
  std::ranges::shuffle(rows, driver.random);
  for (std::int64_t i = 0; i < driver.runs; ++i)
    for (const Row& row : rows) run(driver, row);
  rusage used{};
  ::getrusage(RUSAGE_CHILDREN, &used);
  driver.expect(kSanitized || used.ru_maxrss < 300'000, concat("kilobytes of memory: ", used.ru_maxrss));
  return driver.end(driver.runs * std::ssize(rows));
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) { return tarvo::faults::drive({"server", count, arguments, 1}); }
