#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <numeric>
#include <regex>

#include "faults/Driver.h"
#include "faults/ServerRows.h"
#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

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

class Server {
 public:
  Server() { shared->port = std::stoi(server_.port); }

 private:
  static void serve(Connection& connection) {
    const int number = shared->row;
    if (number >= 0 && rows()[number].act) {
      ++shared->asked[1];
      return rows()[number].act(connection);
    }
    test::answerAsAnyHost(connection, {certificates().server}, [number, &connection](const std::string& request) {
      const std::string reply = answer(request, number);
      if (reply.empty()) ::shutdown(connection.socket, SHUT_RDWR);
      return reply;
    });
  }
  static std::string answer(const std::string& request, int number) {
    const auto begin = request.find("/v1/demo/") + 9;
    const std::string endpoint = request.substr(begin, request.find_first_of(" ?", begin) - begin);
    const Call* call = std::find_if(std::begin(kCalls), std::end(kCalls) - 1,
                                    [&](const Call& known) { return known.endpoint == endpoint; });
    ++shared->asked[call - kCalls];
    const std::string_view asked = number < 0 ? std::string_view() : rows()[number].endpoint;
    if (asked == endpoint) return rows()[number].reply;
    static constexpr std::string_view kIndex = "\"unique_position_id_for_app\":\"";
    for (auto at = request.find(kIndex); at != request.npos; at = request.find(kIndex, at + 1))
      ++shared->received[std::stoul(request.substr(at + kIndex.size()))];
    const bool announces = asked == "predictions" || asked == "pasttrips" || asked == "pois";
    const std::string news = concat(":", number + 100);  // of each kind there is a newer one
    return httpReply(200, announces ? std::regex_replace(call->good, std::regex(":0"), news) : call->good);
  }

  test::RawServer server_{&Server::serve};
};

/// Tells what does not hold.
template <class... Parts>
void expect(bool holds, int row, const Parts&... parts) {
  if (holds) return;
  ++shared->faults;
  std::cerr << concat(row < 0 ? "in the end" : rows()[row].what, ":", concat(" ", parts)...) + "\n";
}

/// The whole SDK of one process, on a clock that moves by itself only for the silence of servers.
class Device : test::WholeSdk {
 public:
  Device(const fs::path& folder, const Row& row, bool confirmed, int day) : confirmed_(confirmed) {
    ::clock_gettime(CLOCK_MONOTONIC, &began);
    speed = row.speed;
    SetUp();
    clock->advance(Seconds(86400.0 * day));
    diary.onMessage([](std::string_view line) {
      if (line.starts_with("Fatal error")) line.copy(shared->fatal, sizeof shared->fatal - 1);
    });
    std::string url = row.url;
    url.replace(url.find("PORT"), 4, std::to_string(shared->port));
    if (!platform::setHomeDirectory(folder) || !LocationManager::setRemoteWebServerURL(url + "/api", true))
      std::abort();
    Tarvo::setDeliveryOptions({.confirmed = confirmed, .dropsProtocolBreaks = confirmed});
  }
  void TestBody() override {}

  /// Registered, unless the row is about that, and past the first 180 seconds.
  void start(int row) {
    if (row >= 0 && (rows()[row].endpoint == "users" || rows()[row].local < 0)) begin(row);
    tarvo_.emplace();
    NetworkManager::setApiKeySecret("secret");
    tarvo_->activate(Tarvo::BACKEND_GEOPROFILE);
    idle();
    clock->advance(Seconds(180));
  }
  /// What the row says happens to fixes, and to what else a host does.
  void live(int row) {
    const Row& lived = rows()[row];
    const auto before = engine().syncStatus();
    const auto givenBefore = withoutAnswer();
    if (shared->row < 0) begin(row);
    isHeldUp_ = lived.byDefault == waits;
    for (int i = 0; i < lived.fixes; ++i) fix();
    if (lived.endpoint != "positions") callEverything();
    sendAll();  // what the last fix came too late for
    judge(row, before, givenBefore);
    shared->row = -1;
    local = 0;
    if (std::exchange(isHeldUp_, false)) idle();
    if (lived.endpoint == "positions") shared->lost += engine().syncStatus().acknowledged - before.acknowledged;
    if (lived.endpoint != "users") settle();
  }
  void recover() {
    fix();
    callEverything();
    settle();
    const auto status = engine().syncStatus();
    std::int64_t received = 0;
    for (std::int64_t i = 0; i < status.stored; ++i) received += shared->received[i] > 0;
    expect(status.acknowledged == status.stored, -1, "acknowledged:", status.acknowledged, "of", status.stored);
    expect(received > 0 && received + std::max(shared->lost.load(), withoutAnswer()) >= status.stored, -1,
           "received:", received, "of", status.stored, "without", shared->lost.load());
  }

 private:
  using Status = decltype(std::declval<LocationManager&>().syncStatus());

  void begin(int row) {
    for (auto& asked : shared->asked) asked = 0;
    diary.clear();
    local = rows()[row].local;
    shared->row = row;
  }
  std::int64_t withoutAnswer() const {
    std::int64_t given = 0;
    for (const auto& range : tarvo_->health().positions.acknowledgedWithoutAnswer)
      given += range.last - range.first + 1;
    return given;
  }
  void judge(int number, const Status& before, std::int64_t givenBefore) const {
    const Row& row = rows()[number];
    const Fate fate = confirmed_ ? row.confirmed : row.byDefault;
    for (std::size_t call = 0; call < std::size(kCalls); ++call) {
      const bool perFix = call >= 1 && call <= 4, isOfRow = row.endpoint == kCalls[call].endpoint && row.local == 0;
      const int asked = shared->asked[call], most = row.fixes + 1 + (perFix ? row.endpoint != "positions" : 3);
      expect(asked <= most && asked >= int(isOfRow), number, kCalls[call].endpoint, "requests:", asked);
    }
    const auto now = engine().syncStatus();
    const auto given = withoutAnswer() - givenBefore, done = now.acknowledged - before.acknowledged;
    expect(now.stored >= before.stored + row.fixes, number, "stored:", now.stored, "after", before.stored);
    expect(fate == acknowledged || fate == givenUp ? now.acknowledged == now.stored : done == 0, number,
           "acknowledged:", done, "of", now.stored - before.acknowledged);
    expect(given == (fate == givenUp ? done : 0), number, "without an answer:", given);
    expect(fate != waits || now.awaiting > 0, number, "awaiting:", now.awaiting);
    std::string line = row.logged;
    if (confirmed_ && fate == stays && row.endpoint == "positions") line = "[net] not confirmed, ";
    if (line[0] == ':' || line[0] == '[') line = "NetworkManager:sendDataInBatchToRemoteWebServer " + line;
    expect(diary.count(line) > 0, number, "not in the log:", line);
  }
  void idle() const {
    platform::WorkInFlight::waitUntilIdle(Seconds(isHeldUp_ ? 0.15 * speed : speed > 1 ? 5 * speed : 60));
  }
  void sendAll() const {
    engine().sendDataInBatchToRemoteWebServer();
    idle();
  }
  void settle() const {
    for (int pass = 0; pass < 20 && engine().syncStatus().acknowledged < engine().syncStatus().stored; ++pass) {
      sendAll();
      clock->advance(Seconds(900));
    }
  }
  void fix() {
    clock->advance(Seconds(1));
    latitude_ += 0.001;
    platform::LocationService::shared().deliver({fixAt(latitude_, platform::secondsSince1970(clock->now()))});
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

  const bool confirmed_;
  std::optional<Tarvo> tarvo_;
  double latitude_ = 48;
  bool isHeldUp_ = false;
};

/// One life of a device: the rows of the plan, then a server that is well. Answers 0 if all of it holds.
int live(const std::vector<int>& plan, bool confirmed) {
  const test::TempDir home;
  ::setenv("TMPDIR", home.path().c_str(), 1);
  shared = new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  const pid_t server = test::startProcess([] {
    const Server well;
    return ::pause();
  });
  while (shared->port == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const Row& first = rows()[plan.front()];
  int day = 0;
  const auto process = [&](int upTo) {
    return test::inFreshProcess([&] {
      Device device(home.path(), first, confirmed, ++day);
      device.start(shared->next < upTo ? plan[shared->next] : -1);
      for (; shared->next < upTo; ++shared->next) device.live(plan[shared->next]);
      device.recover();
      return 0;
    });
  };
  const int all = static_cast<int>(plan.size());
  // Or the name would be remembered from the registration.
  if (first.local < 0) expect(process(0) == 0, plan.front(), "no registration"), ++day;
  for (int end = 1; end != 0 && shared->next <= all; ++day) {
    end = process(all);
    if (end == 0) break;
    const int row = shared->next < all ? plan[shared->next] : -1;
    const std::string_view line = shared->fatal;
    expect(row >= 0 && !confirmed && rows()[row].byDefault == stops && end == -SIGABRT &&
               line.starts_with("Fatal error: " + rows()[row].logged),
           row, "the process ends with", end, line);
    shared->row = -1;
    ++shared->next;
  }
  rusage used{};
  ::getrusage(RUSAGE_CHILDREN, &used);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  expect(used.ru_maxrss < 300'000, -1, "kilobytes of memory:", used.ru_maxrss);
#endif
  ::kill(server, SIGKILL);
  test::endOf(server);
  return shared->faults == 0 ? 0 : 1;
}

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
    const bool isOfAnswers = !row.reply.empty(), isAlike = columns == rest && !isOfAnswers;
    if (!isAlike && !what.empty()) text += "| " + std::exchange(what, {}) + rest;
    if (isOfAnswers) break;
    what += isAlike ? "; " + row.what : row.what;
    rest = columns;
  }
  text += "\n| answer to | field | missing | another type | null | huge | twice |\n|---|---|---|---|---|---|---|\n";
  for (const auto& [endpoint, good, fields] : kCalls) {
    std::istringstream words(fields);
    for (std::string key, fates; words >> key >> fates;) {
      text += concat("| `", endpoint, "` | ", key, " |");
      for (const char fate : fates) text += fate == 'S' ? " **stops** |" : fate == 'U' ? " no user |" : " goes on |";
      text += "\n";
    }
  }
  return text;
}

int drive(int count, char** arguments) {
  Driver driver("server", count, arguments, 1);
  certificates();
  if (count == 2 && arguments[1] == std::string_view("--markdown")) {
    std::cout << markdown();
    return 0;
  }
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  ::signal(SIGPIPE, SIG_IGN);
  ::setenv("no_proxy", "*", 1);
  // Lives of rows that can follow each other in one process, in another order in each run.
  constexpr std::size_t kMostOfALife = 30;
  std::vector<int> order(rows().size());
  std::iota(order.begin(), order.end(), 0);
  std::erase_if(order, [&](int row) { return rows()[row].what.find(driver.only) == std::string::npos; });
  std::int64_t running = 0, done = 0;
  const auto reap = [&] {
    int status = 0;
    if (::wait(&status) > 0) --running;
    driver.expect(status == 0, "a life does not hold");
  };
  for (std::int64_t run = 0; run < driver.runs; ++run) {
    std::ranges::shuffle(order, driver.random);
    std::map<std::string, std::vector<std::vector<int>>> lives[2];
    for (const int number : order)
      for (const bool confirmed : {false, true}) {
        const Row& row = rows()[number];
        if (confirmed && row.endpoint != "positions" && row.confirmed == row.byDefault) continue;  // nothing differs
        auto& alike = lives[confirmed][concat(row.url, row.speed, row.act != nullptr, row.endpoint == "users",
                                              row.alone ? row.what : "")];
        if (alike.empty() || alike.back().size() == kMostOfALife) alike.emplace_back();
        alike.back().push_back(number);
      }
    for (const bool confirmed : {false, true})
      for (const auto& [what, plans] : lives[confirmed])
        for (const auto& plan : plans) {
          if (running == 2) reap();
          ++running;
          done += static_cast<std::int64_t>(plan.size());
          test::startProcess([&] { return live(plan, confirmed); });
        }
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
