// Whatever a host hands in, at whatever moment: it is stored once or refused, or the process stops for a reason that
// the documents name. `--seed` chooses payloads and orders, `--runs` is seconds of the flood and rounds of the stress.

#include <future>
#include <stdexcept>

#include "engine/EngineParts.h"
#include "faults/Stress.h"
#include "settings/EngineLink.h"

namespace tarvo::faults {
namespace {

using platform::CLLocation, platform::LocationService, platform::Seconds;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN(), kInfinity = std::numeric_limits<double>::infinity();
constexpr double kMost = std::numeric_limits<double>::max(), kLeast = std::numeric_limits<double>::denorm_min();
constexpr double kLastOfYears = 253402300799.99997;  // of 9999
constexpr double kEdges[] = {kNan,
                             -kNan,
                             kInfinity,
                             -kInfinity,
                             0.0,
                             -0.0,
                             kLeast,
                             -kLeast,
                             90,
                             -90,
                             90.00000000000001,
                             -90.00000000000001,
                             180,
                             -180,
                             180.00000000000003,
                             360,
                             -1,
                             kMost,
                             -kMost,
                             2147483647,
                             2147483648,
                             4294967296,
                             1e12,
                             1e300,
                             kLastOfYears,
                             253402300800};

Tarvo collecting(std::int64_t mode = Tarvo::LOCAL_BACKGROUND) {
  Tarvo tarvo;
  tarvo.activate(mode);
  return tarvo;
}

/// A field of a fix at its edges: those within the bounds are stored as they are, the others refused with a line.
Row edges(const std::string& name, double least, double most, std::function<double&(CLLocation&)> field) {
  const auto body = [=](Host& host) {
    const Tarvo tarvo = collecting();
    std::vector<double> expected, stored;
    host.diary.clear();
    double place = 0;
    for (const double value : kEdges) {
      place += 0.01;
      CLLocation edge = Host::fixAt(48 + place, Host::kStart);
      field(edge) = value;
      CLLocation between = Host::fixAt(-48 - place, 0);
      between.floor = 1;
      Host::deliver(edge, between);
      if (std::isfinite(value) && value >= least && value <= most) expected.push_back(value);
    }
    for (const auto& record : Host::records()) {
      CLLocation fix{.coordinate = {*record.latitude, *record.longitude}, .altitude = *record.altitude};
      fix.horizontalAccuracy = *record.horizontalAccuracy, fix.verticalAccuracy = *record.verticalAccuracy;
      fix.course = *record.course, fix.speed = *record.speed, fix.timestamp = *record.locationTimestamp;
      if (record.floor != 1) stored.push_back(field(fix));
    }
    EXPECT_EQ(stored, expected);
    EXPECT_EQ(host.diary.count("fix refused, " + name), std::size(kEdges) - expected.size());
  };
  return {"fix " + name, body};
}

/// Anything that a push message can hold.
platform::Value payload(std::mt19937_64& random, int depth) {
  const auto text = [&] {
    std::string bytes(random() % (random() % 50 ? 20 : 2'000'000), '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
  };
  const platform::Value plain[] = {nullptr, random() % 2 == 0, static_cast<std::int64_t>(random()),
                                   std::bit_cast<double>(random()), text()};
  if (depth == 0 || random() % 2) return plain[random() % std::size(plain)];
  if (random() % 2) return platform::Array(random() % 4, payload(random, depth - 1));
  return platform::Dictionary{{text(), payload(random, depth - 1)}, {"messageFrom", payload(random, depth - 1)}};
}

void pushes(Host& host, std::mt19937_64 random) {
  Tarvo tarvo = host.online();
  host.drive(1);
  for (int i = 0; i < 300; ++i) {
    const platform::Value value = payload(random, 1 + static_cast<int>(random() % 200));
    platform::Dictionary message = value.asDictionary() ? *value.asDictionary() : platform::Dictionary{{"aps", value}};
    if (i % 10 == 0) message["messageFrom"] = "tarvo";
    const bool ours = platform::findString(message, "messageFrom") == "tarvo";
    EXPECT_EQ(tarvo.didReceiveRemoteNotification(message), ours);
    (void)platform::Value::fromJson(value.toJson().value_or(std::string(100'000, '[')));
  }
  expectAllDelivered(host, tarvo);
}

void flood(Host& host, std::int64_t seconds) {
  Tarvo tarvo = host.online();
  for (std::int64_t second = 0; second < seconds; ++second) {
    std::vector<std::thread> receivers;
    for (int receiver = 0; receiver < 8; ++receiver)
      receivers.emplace_back([receiver, second] {
        for (int i = 0; i < 2500; ++i)
          LocationService::shared().deliver({Host::fixAt(receiver * 10 + i * 0.001, Host::kStart + 1.0 * second)});
      });
    for (auto& receiver : receivers) receiver.join();
    host.waitUntilIdle();
    host.clock->advance(Seconds(1));
  }
  EXPECT_EQ(tarvo.syncStatus().stored, seconds * 20'000);
  expectAllDelivered(host, tarvo);
}

/// Descriptors of the process, and threads of the SDK.
std::pair<std::ptrdiff_t, std::ptrdiff_t> held() {
  const auto entries = [](const char* folder) { return std::filesystem::directory_iterator(folder); };
  const auto ours = [](const auto& thread) {
    return platform::readFile(thread.path() / "comm").value().starts_with("tarvo:");
  };
  return {std::distance(entries("/proc/self/fd"), {}), std::count_if(entries("/proc/self/task"), {}, ours)};
}

void everythingAtOnce(Host& host, std::uint64_t seed, std::size_t rounds) {
  Tarvo tarvo = host.online();
  host.drive(1);
  host.push(tarvo);
  const auto before = held();
  stress(tarvo, Operations(host, true, true), 64, rounds, seed);
  expectAllDelivered(host, tarvo);
  const auto after = held();
  EXPECT_LE(after.first, before.first + 16) << "eight connections have two ends here";
  EXPECT_LE(after.second, before.second + 8) << "a queue's thread starts with its first block";
}

void beforeTheRegistration(Host& host, std::uint64_t seed) {
  host.startBackend();
  Tarvo tarvo = collecting(Tarvo::BACKEND_BACKGROUND);
  host.drive(1);
  stress(tarvo, Operations(host, false, true), 64, 1, seed);
  host.registered();
  expectAllDelivered(host, tarvo);
}

void beforeTheActivation(Host& host, std::uint64_t seed) {
  host.startBackend();
  std::vector<std::thread> first;
  LocationService::shared().deliver({Host::fixAt(1, Host::kStart)});
  for (int i = 0; i < 64; ++i)
    first.emplace_back([&, i] {
      Tarvo tarvo;  // one of them builds the engine
      const Operations operations(host, false, true);
      for (std::size_t n = 1; n < 14; ++n) operations.call(tarvo, seed + i + n);
    });
  for (auto& thread : first) thread.join();
  Tarvo tarvo = host.registered();
  expectAllDelivered(host, tarvo);
}

void fromInsideCallbacks(Host& host) {
  Tarvo tarvo = host.online(Tarvo::BACKEND_GEOPROFILE);
  host.drive(1);
  const Operations operations(host, true, false);
  std::atomic<std::uint64_t> called{0};
  const auto delegate = std::make_shared<test::DiaryDelegate>();
  delegate->inside = [&](Tarvo& self) {
    if (called < operations.size()) operations.call(self, called++);
    self.setDelegate(delegate);
    self.requestLocationUpdate();
  };
  tarvo.setDelegate(delegate);
  for (int i = 0; i < 4000 && called < operations.size(); ++i) {
    LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::authorizedAlways);
    tarvo.activate(Tarvo::BACKEND_GEOPROFILE);
    host.drive(1);
  }
  EXPECT_EQ(called, operations.size());
  expectAllDelivered(host, tarvo);
}

/// `main` returns while 64 threads are at it.
void duringExit(Host& host, std::uint64_t seed) {
  auto* tarvo = new Tarvo(host.online());
  host.drive(1);
  auto* operations = new Operations(host, true, true);
  auto* called = new std::atomic<int>{0};
  for (int thread = 0; thread < 64; ++thread)
    new std::thread([=, random = std::mt19937_64(seed + thread)]() mutable {
      for (;; ++*called) operations->call(*tarvo, random() >> 16);
    });
  while (*called < 1000) platform::MainQueue::main().runFor(Seconds(0.01));
}

/// Calls from outside go on while the delegate holds its thread, and nothing is lost.
void blocked(Host& host) {
  Tarvo tarvo = host.online();
  std::promise<void> go;
  const auto delegate = std::make_shared<test::DiaryDelegate>();
  delegate->inside = [&, gate = go.get_future().share()](Tarvo&) { gate.wait(); };
  tarvo.setDelegate(delegate);
  for (int i = 0; i < 50; ++i) LocationService::shared().deliver({Host::fixAt(i, Host::kStart)});
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  tarvo.health();
  EXPECT_FALSE(Tarvo::waitUntilIdle(0.3));
  go.set_value();
  host.waitUntilIdle();
  EXPECT_EQ(tarvo.syncStatus().stored, 50);
  expectAllDelivered(host, tarvo);
}

void destroysTheHandle(Host& host) {
  auto tarvo = std::make_unique<Tarvo>(host.online());
  const auto delegate = std::make_shared<test::DiaryDelegate>();
  delegate->inside = [&](Tarvo&) { tarvo.reset(); };
  tarvo->setDelegate(delegate);
  host.drive(3);
  EXPECT_TRUE(tarvo == nullptr && delegate->batches.size() == 1);
  Tarvo other;
  expectAllDelivered(host, other);
}

/// A host that throws wherever it is called.
struct Thrower : TarvoDelegate, platform::LocationSource, platform::HostApplication {
  static void fail() { throw std::runtime_error("mine"); }
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<CLLocation>&) override { fail(); }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory&) override { fail(); }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override { fail(); }
  void start(double) override { fail(); }
  void stop() override {}
  void registerForRemoteNotifications() override { fail(); }
};

Row throws(const std::string& end, std::function<void(Host&, Tarvo&)> provoke) {
  return {end,
          [provoke](Host& host) {
            Host::tellOnlyTheEnd();
            Tarvo tarvo = collecting();
            tarvo.setDelegate(std::make_shared<Thrower>());
            tarvo.requestRouteMatch();
            tarvo.requestPredictionUpdate();
            provoke(host, tarvo);
            host.waitUntilIdle();
          },
          "Fatal error: " + end};
}

void allow(int resource, rlim_t most) {
  rlimit limit{};
  ::getrlimit(static_cast<__rlimit_resource>(resource), &limit);
  limit.rlim_cur = std::min(most, limit.rlim_max);
  ::setrlimit(static_cast<__rlimit_resource>(resource), &limit);
}

/// So few descriptors, from the start on or once the SDK is at work, and then enough again.
void descriptors(Host& host, rlim_t most, bool fromTheStart) {
  Host::tellOnlyTheEnd();
  LocationManager::setRemoteWebServerURL("http://127.0.0.1:9/api");
  if (fromTheStart) allow(RLIMIT_NOFILE, most);
  Tarvo tarvo = collecting(Tarvo::BACKEND_BACKGROUND);
  if (!fromTheStart) {
    host.drive(5);
    allow(RLIMIT_NOFILE, most);
  }
  NetworkManager::setApiKeySecret("secret");
  for (int i = 0; i < 5; ++i) LocationService::shared().deliver({Host::fixAt(48 + i, Host::kStart)});
  Tarvo::waitUntilIdle(0.5);
  allow(RLIMIT_NOFILE, RLIM_INFINITY);
  host.drive(5);
  const auto status = tarvo.syncStatus();
  EXPECT_EQ(status.stored + status.unsaved, fromTheStart ? 10 : 15);
  EXPECT_TRUE(status.storeAvailable || fromTheStart) << "what cannot be opened at the start is done without";
}

/// So many megabytes beyond what is mapped, from the start on or once the SDK is at work.
void memory(Host& host, rlim_t megabytes, bool fromTheStart) {
  Host::tellOnlyTheEnd();
  const auto limit = [&] {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    allow(RLIMIT_AS, pages * 4096 + (megabytes << 20));
  };
  if (fromTheStart) limit();
  Tarvo tarvo = collecting();
  const auto deliver = [](int number) {
    LocationService::shared().deliver({Host::fixAt(number * 0.01, Host::kStart)});
  };
  for (int i = 0; i < 200; ++i) deliver(i);
  Tarvo::waitUntilIdle(1);
  if (!fromTheStart) limit();
  std::vector<std::vector<LocationRecord>> histories;
  try {
    for (int round = 0; round < 300; ++round)
      if (const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}))
        histories.push_back(history->locations.toVector());
  } catch (const std::bad_alloc&) {
    histories.clear();  // on the host's own thread it is told
  }
  deliver(200);
  Tarvo::waitUntilIdle(0.1);
  allow(RLIMIT_AS, RLIM_INFINITY);
  host.waitUntilIdle();
  const auto status = tarvo.syncStatus();
  EXPECT_EQ(status.stored + status.unsaved, 201);
}

std::vector<Row> rows(const Driver& driver) {
  const std::uint64_t seed = driver.seed;
  const auto rounds = static_cast<std::size_t>(driver.runs);
  const auto seconds = kBoundSeconds * static_cast<int>(driver.runs) * (kSanitized ? 3 : 1);
  const auto quiet = [](auto body, auto... values) {
    return [=](Host& host) {
      Host::tellOnlyTheEnd();
      body(host, values...);
    };
  };
  const auto onMain = [](auto block) { platform::MainQueue::main().async(block); };
  std::vector<Row> all = {
      edges("latitude", -90, 90, [](CLLocation& fix) -> double& { return fix.coordinate.latitude; }),
      edges("longitude", -180, 180, [](CLLocation& fix) -> double& { return fix.coordinate.longitude; }),
      edges("altitude", -kMost, kMost, [](CLLocation& fix) -> double& { return fix.altitude; }),
      edges("horizontal accuracy", -kMost, kMost, [](CLLocation& fix) -> double& { return fix.horizontalAccuracy; }),
      edges("vertical accuracy", -kMost, kMost, [](CLLocation& fix) -> double& { return fix.verticalAccuracy; }),
      edges("speed", -kMost, kMost, [](CLLocation& fix) -> double& { return fix.speed; }),
      edges("course", -kMost, kMost, [](CLLocation& fix) -> double& { return fix.course; }),
      edges("timestamp", 0, kLastOfYears,
            [](CLLocation& fix) -> double& { return reinterpret_cast<double&>(fix.timestamp); }),
      {"pushes", quiet(pushes, std::mt19937_64(seed))},
      {"flood", quiet(flood, driver.runs), "lives", seconds},
      {"everything at once", quiet(everythingAtOnce, seed, rounds), "lives", seconds},
      {"before the registration", quiet(beforeTheRegistration, seed), "lives", seconds},
      {"before the activation", quiet(beforeTheActivation, seed), "lives|Fatal error: refreshLoc", seconds},
      {"inside callbacks", quiet(fromInsideCallbacks)},
      {"during exit", quiet(duringExit, seed)},
      {"a delegate that blocks", quiet(blocked)},
      {"a delegate that destroys the handle", quiet(destroysTheHandle)},
      throws("tarvoDidReceiveNewLocations threw an exception: mine", [](Host& host, Tarvo&) { host.drive(1); }),
      throws("tarvoOnRouteMatched threw",
             [](Host&, Tarvo& tarvo) {
               tarvo.locationManager().addNewLastTrip({{{"pasttrip_id", 7}}});
             }),
      throws("tarvoOnPredictionUpdate threw", [](Host&, Tarvo&) { EngineLink::current().predictionStored(); }),
      throws("the completion handler of background events threw",
             [](Host&, Tarvo& tarvo) {
               tarvo.handleEventsForBackgroundURLSession(Tarvo::backgroundSessionID(), Thrower::fail);
             }),
      throws("registerForRemoteNotifications threw",
             [](Host&, Tarvo&) {
               platform::setHostApplication(std::make_shared<Thrower>());
               platform::UIApplication::shared().registerForRemoteNotifications();
             }),
      throws("LocationSource::start threw",
             [](Host&, Tarvo&) { LocationService::shared().setSource(std::make_shared<Thrower>()); }),
      throws("a block of the main queue threw an exception\n", [=](Host&, Tarvo&) { onMain([] { throw 7; }); }),
      throws("a block of the main queue threw an exception: std::bad_alloc",
             [=](Host&, Tarvo&) { onMain([] { throw std::bad_alloc(); }); }),
      throws("the permission prompt threw",
             [](Host&, Tarvo& tarvo) {
               LocationService::shared().setPrompt([](auto) { Thrower::fail(); });
               LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::notDetermined);
               tarvo.getCurrentLocation();
             }),
      throws("the system log's sink threw",
             [](Host&, Tarvo& tarvo) {
               platform::setSystemLogSink([](std::string_view) { Thrower::fail(); });
               tarvo.stopLocationUpdate();
             }),
      throws("there is no document directory",
             [](Host&, Tarvo&) { platform::setDocumentDirectories({}), ObjectStore().saveContext(); }),
      throws("request to .* without user UUID or secret", [](Host&, Tarvo&) { NetworkManager().getNextTrip(); }),
      throws("the backend.s .pasttrip_id. is no integer",
             [](Host&, Tarvo& tarvo) {
               tarvo.locationManager().addNewLastTrip({{{"pasttrip_id", "seven"}}});
             }),
      throws("refreshLoc: the location service has no position yet",
             [](Host&, Tarvo& tarvo) {
               tarvo.activate(Tarvo::BACKEND_BACKGROUND);
               tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}});
             }),
      throws("refreshLoc: there is no last position",
             [](Host& host, Tarvo& tarvo) {
               LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::denied);
               host.waitUntilIdle();
               tarvo.locationManager().refreshLoc();
             }),
      throws("waiting for idle inside a block of a queue",
             [](Host& host, Tarvo& tarvo) {
               const auto delegate = std::make_shared<test::DiaryDelegate>();
               delegate->inside = [](Tarvo&) { Tarvo::waitUntilIdle(1); };
               tarvo.setDelegate(delegate);
               host.drive(1);
             }),
  };
  for (const rlim_t most : {3, 6, 8, 9, 10, 12, 14, 16, 20})
    for (const bool fromTheStart : {true, false})
      all.push_back({platform::concat("descriptors ", most, fromTheStart ? "" : " while it runs"),
                     [=](Host& host) { descriptors(host, most, fromTheStart); },
                     "lives|Fatal error: no event descriptor for the main queue"});
  if (!kSanitized)
    for (const rlim_t megabytes : {0, 1, 4, 16, 32, 64})
      for (const bool fromTheStart : {true, false})
        all.push_back({platform::concat("megabytes ", megabytes, fromTheStart ? "" : " while it runs"),
                       [=](Host& host) { memory(host, megabytes, fromTheStart); },
                       "lives|Fatal error: out of memory|Fatal error: the HTTP library cannot"});
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  using namespace tarvo::faults;
  Driver driver("input", count, arguments, 1);
  const auto table = rows(driver);
  for (const Row& row : table) run(driver, row);
  return driver.end(static_cast<std::int64_t>(table.size()));
}
