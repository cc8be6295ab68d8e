// Whatever a host hands in, at whatever moment: it is stored once or refused, or the process stops for a reason that
// the documents name. `--seed` chooses payloads and orders, `--runs` is seconds of the flood and rounds of the stress.

#include <future>
#include <stdexcept>

#include "engine/EngineParts.h"
#include "faults/Stress.h"
#include "log/Log.h"
#include "platform/foundation/SerialQueue.h"
#include "records/Positions.h"
#include "settings/EngineLink.h"

namespace tarvo::faults {
namespace {

using platform::CLLocation, platform::MainQueue, platform::Seconds, platform::SerialQueue;

constexpr double kMost = std::numeric_limits<double>::max();
/// With the numbers beside them, and all of these with the other sign.
constexpr double kEdges[] = {0, 90, 180, 2147483647, 4294967296, 253402300800, kMost, NAN};

/// Each field of a fix at its edges: what is within the bounds is stored as it is, the rest refused with a line. So the
/// time of fixes goes forward and back between the ends of what there is.
void edges(Host&) {
  CLLocation fix;
  const std::tuple<double, double, double*> fields[] = {
      {-90, 90, &fix.coordinate.latitude},
      {-180, 180, &fix.coordinate.longitude},
      {0, 253402300799.99997, reinterpret_cast<double*>(&fix.timestamp)},
      {-kMost, kMost, &fix.altitude},
      {-kMost, kMost, &fix.horizontalAccuracy},
      {-kMost, kMost, &fix.verticalAccuracy},
      {-kMost, kMost, &fix.speed},
      {-kMost, kMost, &fix.course}};
  std::size_t refused = 0;
  platform::setSystemLogSink([&](std::string_view line) { refused += line.find("fix refused, ") != line.npos; });
  Tarvo().activate(Tarvo::LOCAL_BACKGROUND);
  double place = 0;
  for (const auto& [least, most, field] : fields) {
    const auto known = Host::records().size();
    std::vector<double> expected, stored;
    for (const double edge : kEdges)
      for (const double value : {edge, std::nextafter(edge, HUGE_VAL), std::nextafter(edge, -HUGE_VAL)})
        for (const double sign : {1, -1}) {
          place += 0.005;
          CLLocation between = Host::fixAt(-48 - place, 0);  // else the filter takes what is near
          between.floor = 1;
          fix = Host::fixAt(48 + place, Host::kStart);
          *field = sign * value;
          Host::deliver(fix, between);
          if (*field >= least && *field <= most) expected.push_back(*field);
        }
    const auto records = Host::records();
    for (std::size_t i = known; i < records.size(); ++i)
      if (fix = *fixOf(records[i], Missing::givesNoFix); fix.floor != 1) stored.push_back(*field);
    EXPECT_EQ(stored, expected);
    EXPECT_EQ(std::exchange(refused, 0), 6 * std::size(kEdges) - expected.size());
  }
}

/// 20,000 fixes in each second, from eight threads.
void flood(Host& host, std::int64_t seconds, std::uint64_t seed) {
  Tarvo tarvo = host.online();
  for (std::int64_t second = 0; second < seconds; ++second) {
    stress(tarvo, {[](auto&, auto number) { deliverAny(number); }}, 8, 2500, seed + 8 * second);
    host.waitUntilIdle();
    host.clock->advance(Seconds(1));
  }
  const auto filtered = static_cast<std::int64_t>(LocationService::shared().statistics().filteredByDistance);
  EXPECT_EQ(tarvo.syncStatus().stored + filtered, seconds * 20'000);
  expectAllDelivered(host, tarvo);
}

/// A delegate that blocks, while calls from outside go on, calls everything from inside, and destroys the handle.
void insideCallbacks(Host& host) {
  auto tarvo = std::make_unique<Tarvo>(host.online(Tarvo::BACKEND_GEOPROFILE));
  const Operations all = operations(host, true, false);
  std::promise<void> go;
  std::atomic<std::size_t> done{0};
  const auto delegate = std::make_shared<test::DiaryDelegate>();
  delegate->inside = [&, gate = go.get_future().share()](Tarvo& self) {
    gate.wait();
    if (const auto number = done++; number < all.size()) all[number](self, number);
    if (done == all.size()) tarvo.reset();
  };
  tarvo->setDelegate(delegate);
  for (int i = 0; i < 50; ++i) LocationService::shared().deliver({Host::fixAt(i, Host::kStart)});
  tarvo->activate(Tarvo::BACKEND_BACKGROUND);
  tarvo->health();
  EXPECT_FALSE(Tarvo::waitUntilIdle(0.3));
  EXPECT_EQ(done, 0);
  go.set_value();
  for (Tarvo other; tarvo; host.drive(1)) {
    LocationService::shared().setAuthorizationStatus(platform::CLAuthorizationStatus::authorizedAlways);
    other.setDelegate(delegate);
    other.activate(Tarvo::BACKEND_GEOPROFILE);
    other.requestLocationUpdate();
  }
  Tarvo other;
  expectAllDelivered(host, other);
}

void fail() { throw std::runtime_error("mine"); }

/// A host that throws wherever it is called.
struct Thrower : TarvoDelegate, platform::LocationSource {
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<CLLocation>&) override { fail(); }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory&) override { fail(); }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override { fail(); }
  void start(double) override { fail(); }
  void stop() override {}
};

/// How the process stops, and what stops it. What the backend's answers and pushes do is for tests of the engine.
const std::pair<const char*, void (*)(Tarvo&)> kStops[] = {
    {"tarvoDidReceiveNewLocations threw an exception: mine", [](Tarvo&) {}},  // with the fix that comes then
    {"tarvoOnRouteMatched threw", [](Tarvo& t) { t.locationManager().addNewLastTrip(itemWith("pasttrip_id", 7)); }},
    {"tarvoOnPredictionUpdate threw", [](Tarvo&) { EngineLink::current().predictionStored(); }},
    {"the completion handler", [](Tarvo& t) { t.handleEventsForBackgroundURLSession(t.backgroundSessionID(), fail); }},
    {"LocationSource::start threw", [](Tarvo&) { LocationService::shared().setSource(std::make_shared<Thrower>()); }},
    {"a block of the main queue threw an exception\n", [](Tarvo&) { MainQueue::main().async([] { throw 7; }); }},
    {"the system log's sink threw",
     [](Tarvo&) { platform::setSystemLogSink([](auto) { fail(); }), Log::debugLog(6, "line"); }},
    {"there is no document directory",
     [](Tarvo&) { platform::setDocumentDirectories({}), ObjectStore().saveContext(); }},
    {"waiting for idle inside a block", [](Tarvo&) { SerialQueue("q").sync([] { Tarvo::waitUntilIdle(1); }); }},
    {"waiting for idle inside a block", [](Tarvo&) { SerialQueue("q").sync([] { Tarvo::flush(1); }); }},
};

void stops(Host& host, void (*provoke)(Tarvo&)) {
  Tarvo tarvo;
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  tarvo.setDelegate(std::make_shared<Thrower>());
  tarvo.requestRouteMatch();
  tarvo.requestPredictionUpdate();
  provoke(tarvo);
  host.waitUntilIdle();
  host.drive(1);
}

rlim_t mappedPages() { return std::strtoull(bytesOf("/proc/self/statm").c_str(), nullptr, 10); }

/// So many descriptors, or megabytes beyond what is mapped, from the start on or once the SDK is at work; then enough.
void starved(Host& host, __rlimit_resource resource, rlim_t most, bool fromTheStart) {
  rlimit before{};
  ::getrlimit(resource, &before);
  const auto starve = [&] {
    const rlimit limit{resource == RLIMIT_AS ? mappedPages() * 4096 + (most << 20) : most, before.rlim_max};
    ::setrlimit(resource, &limit);
  };
  const auto deliver = [](int from, int to) {
    for (int i = from; i < to; ++i) LocationService::shared().deliver({Host::fixAt(i * 0.01, Host::kStart)});
    Tarvo::waitUntilIdle(0.1);
  };
  LocationManager::setRemoteWebServerURL("http://127.0.0.1:9/api");
  if (fromTheStart) starve();
  Tarvo tarvo;
  tarvo.activate(Tarvo::BACKEND_BACKGROUND);
  deliver(0, 200);
  if (!fromTheStart) starve();
  NetworkManager::setApiKeySecret("secret");
  std::vector<std::vector<LocationRecord>> histories;
  try {
    for (int round = 0; round < (resource == RLIMIT_AS ? 300 : 1); ++round)
      if (const auto history = tarvo.getLocationHistory(Tarvo::TARVO_FORMAT_RAW, {}, {}))
        histories.push_back(history->locations.toVector());
  } catch (const std::bad_alloc&) {
    histories.clear();  // on the host's own thread it is told
  }
  deliver(200, 205);
  ::setrlimit(resource, &before);
  host.drive(5);
  const auto status = tarvo.syncStatus();
  EXPECT_EQ(status.stored + status.unsaved, 210);
  EXPECT_TRUE(status.storeAvailable || fromTheStart) << "what cannot be opened at the start is done without";
}

std::vector<Row> rows(const Driver& driver) {
  const std::uint64_t seed = driver.seed;
  const std::int64_t runs = driver.runs;
  const auto everything = [=](Stage stage) {
    return [=](Host& host) { everythingAtOnce(host, stage, 64, runs, seed); };
  };
  std::vector<Row> all = {{"edges", edges},
                          {"flood", [=](Host& host) { flood(host, runs, seed); }},
                          {"everything at once", everything(Stage::registered)},
                          {"before the registration", everything(Stage::activated)},
                          {"before the activation", everything(Stage::nothing), "lives|Fatal error: refreshLoc"},
                          {"inside callbacks", insideCallbacks}};
  for (const auto& [end, provoke] : kStops)
    all.push_back({end, [=](Host& host) { stops(host, provoke); }, platform::concat("Fatal error: ", end)});
  const auto* poor = "lives|Fatal error: (out of memory|the HTTP library cannot|no event descriptor for the main)";
  const auto starve = [&](const char* name, auto resource, rlim_t most) {
    for (const bool fromTheStart : {true, false})
      all.push_back({platform::concat(name, " ", most, " ", fromTheStart),
                     [=](Host& host) { starved(host, resource, most, fromTheStart); }, poor});
  };
  if (mappedPages() < 1 << 28) {  // a sanitizer has mapped terabytes, and looks at objects through pipes
    for (const rlim_t most : {3, 8, 10, 14, 20}) starve("descriptors", RLIMIT_NOFILE, most);
    for (const rlim_t most : {0, 4, 32}) starve("megabytes", RLIMIT_AS, most);
  }
  for (Row& row : all) row.seconds *= runs;
  return all;
}

}  // namespace
}  // namespace tarvo::faults

int main(int count, char** arguments) {
  return tarvo::faults::run({"input", count, arguments, 1}, tarvo::faults::rows);
}
