// Everything that decodes bytes from outside, given anything at all: nothing crashes, hangs or fills the memory, what
// is taken is valid, and what is written again reads as the same.
//
// Built twice: everywhere as a driver, which goes over the corpora and some thousand changed copies of them; with clang
// as a libFuzzer program, see `tests/faults/run`. A new decoder is a row of `kTargets` and a folder of seeds.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/GpxReplay.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "engine/EngineParts.h"
#include "faults/Driver.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "platform/urlsession/URLSession.h"
#include "receivers/NmeaReader.h"
#include "records/LatestPrediction.h"
#include "sandbox/Canned.h"
#include "settings/Settings.h"
#include "store/LedgerText.h"
#include "support/StoreFile.h"
#include "support/TempDir.h"
#include "tarvo/Arguments.h"
#include "tarvo/Console.h"
#include "tarvo/Script.h"

// A session without network, which takes the place of the library's at link time: requests wait for their answer.
namespace tarvo::platform {

Guarded<std::vector<DataTaskCompletion>>& asked() {
  static auto* all = new Guarded<std::vector<DataTaskCompletion>>;
  return *all;
}

struct WaitingTask final : URLSessionDataTask {
  explicit WaitingTask(DataTaskCompletion its) : completion(std::move(its)) {}
  void resume() override {
    asked().update([&](auto& all) { all.push_back(std::exchange(completion, nullptr)); });
  }
  DataTaskCompletion completion;
};

struct URLSession::State {};
URLSession::URLSession() : state_(new State) {}
void URLSession::endAll() {}
URLSession& URLSession::shared() {
  static auto* session = new URLSession;
  return *session;
}
std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest, DataTaskCompletion completion) {
  return std::make_shared<WaitingTask>(std::move(completion));
}
std::shared_ptr<URLSessionDataTask> URLSession::uploadTask(URLRequest, std::filesystem::path, SerialQueue&,
                                                           DataTaskCompletion completion) {
  return std::make_shared<WaitingTask>(std::move(completion));
}
bool setTransferOptions(TransferOptions) { return true; }
TransferOptions transferOptions() { return {}; }
std::string hostToConnectTo(std::string_view urlOrName) { return hostOf(urlOrName); }

}  // namespace tarvo::platform

namespace tarvo::faults {
namespace {

namespace fs = std::filesystem;
using namespace platform;
using test::bytesOf;
using Bytes = std::string_view;

/// What must hold for every input; else the process ends, and whoever runs it keeps the input.
void require(bool holds, Bytes otherwise) {
  if (holds) return;
  std::cerr << "decoders: " << otherwise << std::endl;
  std::abort();
}

fs::path written(const char* name, Bytes bytes) {
  fs::path file = homeDirectory() / name;
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << bytes;
  return file;
}

bool isJson(const std::optional<std::string>& text) { return !text || parseJson(*text); }

void json(Bytes bytes) {
  const auto value = Value::fromJson(bytes);
  if (!value) return;
  concat(*value);
  const auto text = value->toJson();
  require(text.has_value(), "what was read as JSON cannot be written");
  const auto again = Value::fromJson(*text);
  require(again && again->toJson() == text, "JSON that was written reads as another value");
}

void propertyList(Bytes bytes) {
  auto value = parsePropertyList(bytes);
  if (!value || !value->asDictionary()) return;
  // What XML cannot hold is replaced when it is written first; from then on nothing changes.
  auto again = parsePropertyList(serializePropertyList(*value));
  require(bool(again), "a property list that was written cannot be read");
  auto third = parsePropertyList(serializePropertyList(*again));
  require(third && concat(*third) == concat(*again), "a property list that was written reads as another");
}

void settings(Bytes bytes) {
  UserDefaults& defaults = UserDefaults::standard();  // read before the file is spoilt: another keeps to the memory
  const fs::path file = written("Library/Preferences/defaults.plist", bytes);
  static std::int64_t number = 0;
  defaults.set("own", ++number);
  auto inFile = parsePropertyList(bytesOf(file));
  require(inFile && inFile->asDictionary() && findInteger(*inFile->asDictionary(), "own") == number,
          "a setting is not in the file");
  for (const auto& [key, value] : *inFile->asDictionary()) {
    concat(defaults.integer(key), defaults.boolean(key), defaults.string(key));
    require(!std::isnan(defaults.number(key)) || value.asDouble(), "a text that is no number reads as one");
  }
  Settings::shared().reloadUserSecret();
  static auto* tarvo = new Tarvo;
  Tarvo(*tarvo).syncStatus();
}

std::string printed(const TransferRecord& record) {
  const auto& [task, outcome] = record;
  const URLRequest& request = task.originalRequest;
  std::string text = concat(task.taskIdentifier, "|", task.file.native(), "|", request.url, "|", request.httpMethod);
  for (const auto& [name, value] : request.headers) text += concat("|", name, ":", value);
  return outcome ? concat(text, "|", outcome->statusCode, "|", outcome->data, "|", outcome->error) : text;
}

void journal(Bytes bytes) {
  const fs::path folder = written("Transfers/fuzz.jsonl", bytes).parent_path();
  std::vector<TransferRecord> records;
  {
    TransferJournal left(folder, "fuzz");
    records = left.takeRestored();
    for (const auto& [task, outcome] : records) {
      left.putResumed(task);
      if (outcome) left.putEnded(task.taskIdentifier, *outcome);
    }
  }
  TransferJournal left(folder, "fuzz");
  require(std::ranges::equal(records, left.takeRestored(), {}, printed, printed),
          "a transfer that was journalled again is another");
}

void requireUsable(const std::vector<CLLocation>& fixes) {
  for (const CLLocation& fix : fixes) {
    for (const double value : {fix.altitude, fix.speed, fix.course, secondsSince1970(fix.timestamp)})
      require(std::isfinite(value), "a fix has a value that is not finite");
    require(std::abs(fix.coordinate.latitude) <= 90 && std::abs(fix.coordinate.longitude) <= 180 &&
                fix.horizontalAccuracy > 0 && std::isfinite(fix.horizontalAccuracy),
            "a fix is off the globe");
  }
}

void gpx(Bytes bytes) {
  std::string error;
  const auto trace = GpxTrace::read(written("trip.gpx", bytes), error);
  require(trace ? !trace->fixes.empty() : !error.empty() && error.find('\n') == error.npos, "no trip, and no reason");
  if (!trace) return;
  requireUsable(trace->fixes);
}

/// In one piece and byte by byte.
void nmea(Bytes bytes) {
  receivers::NmeaReader whole, single;
  std::vector<CLLocation> fixes, others;
  whole.take(bytes, fixes);
  whole.finish(fixes);
  for (const char& byte : bytes) single.take({&byte, 1}, others);
  single.finish(others);
  require(fixes == others, "sentences in parts give other fixes");
  requireUsable(fixes);
}

/// A base, a line end and where it sends its client, or when.
void urls(Bytes bytes) {
  const std::string base(bytes.substr(0, bytes.find('\n')));
  const std::string location(bytes.substr(std::min(bytes.size(), base.size() + 1)));
  const auto isReadable = [](unsigned char c) { return c > ' ' && c != 0x7f; };
  const auto wait = retryAfter({base, 503, {{"Date", base}, {"Retry-After", location}}}, dateSince1970(1e9));
  require(!wait || (*wait >= Seconds(0) && std::isfinite(wait->count())), "an answer asks for an impossible wait");
  for (const auto& url : {base, location, redirectTarget(base, location).value_or("")}) {
    isLoopbackHost(hostOf(url));
    if (!isValidHttpUrl(url)) continue;
    require(!hostOf(url).empty() && std::ranges::all_of(url, isReadable), "a URL without a host, or with blanks");
    const auto again = redirectTarget(url, url);
    require(!again || again->substr(0, again->find_first_of("/?#", 8)).find('@') == again->npos,
            "a redirect carries credentials");
  }
}

void ledger(Bytes bytes) {
  const auto ledger = LedgerText::read(bytes);
  if (!ledger) return;
  const auto& ranges = ledger->acknowledgedWithoutAnswer;
  const auto touch = [](const auto& one, const auto& next) { return next.first - 1 <= one.last; };
  require(std::ranges::adjacent_find(ranges, touch) == ranges.end(), "ranges of the ledger touch");
  require(ledger->text().size() < 8192, "a ledger without end");
  require(LedgerText::read(ledger->text()) == ledger, "a ledger that was written reads as another");
}

void script(Bytes bytes) {
  const std::string file = written("script.jsonl", bytes);
  try {
    const auto events = cli::readScript(file, dateSince1970(1e9));
    require(std::ranges::is_sorted(events, {}, &cli::ScriptEvent::at), "the events of a script are out of order");
  } catch (const cli::Failure& failure) {
    require(failure.status == cli::kUsage && failure.message.starts_with(file + ":"), "a script is refused unclearly");
  }
}

void canned(Bytes bytes) {
  try {
    sandbox::Derived derived;
    derived.serve(sandbox::parseCanned(bytes));
    for (const auto& answer : {derived.counters("u"), derived.prediction("u"), derived.pastTrips("u", 0, INT64_MAX),
                               derived.places("u"), derived.configuration()})
      require(isJson(answer), "the sandbox answers with what is no JSON");
  } catch (const std::runtime_error& error) {
    require(*error.what() != '\0', "canned data are refused without a reason");
  }
}

/// The whole SDK, registered and with a fix, whose requests wait for the driver.
struct Sdk {
  Tarvo tarvo;
  LocationManager& engine = LocationManager::sharedInstance();
  EngineParts& parts = EngineParts::of(engine);

  static Sdk& shared() {
    static auto* sdk = new Sdk;
    return *sdk;
  }
  Sdk() {
    tarvo.activate(Tarvo::BACKEND_GEOPROFILE);
    LocationService::shared().deliver(
        {{.coordinate = {48, 11}, .horizontalAccuracy = 5, .timestamp = dateSince1970(1e9)}});
    idle();
    Settings::shared().storeUserSecret("secret");
  }
  static void idle() { require(WorkInFlight::waitUntilIdle(Seconds(30)), "work does not end"); }

  /// As before every input.
  void clear() {
    asked().set({});
    auto& context = parts.store.managedObjectContext();
    context.performAndWait([&] {
      for (const char* entity : {"Locations", "PastTrips", "PointOfInterest", "Users"})
        for (const auto& object : *context.fetch({.entity = entity})) context.deleteObject(object);
      parts.store.saveContext();
    });
    latestPrediction().set({});
    Settings& settings = Settings::shared();
    settings.uploadChannel.release();
    settings.userUUID.set("user");
    settings.lastTripID.set(INT64_MAX);
    engine.setAlreadyReceivedUUID(false);
    UserDefaults::standard().remove(names::kLogLevel);
    Log::setLOGLEVEL(Log::kOff);
  }
  /// Asks, and gives to this and to every request that follows the same answer; in one way of delivery or the other.
  void answer(Bytes bytes, const std::function<void(NetworkManager&)>& ask) {
    Tarvo::setDeliveryOptions({.confirmed = bytes.size() % 2 == 1, .dropsProtocolBreaks = true});
    HTTPURLResponse response{"http://127.0.0.1:9/api", 200, {}};
    if (bytes.starts_with("HTTP ")) {  // a status, when to come back, and the rest in the next lines
      response.statusCode = std::atoi(std::string(bytes.substr(5, 3)).c_str());
      bytes.remove_prefix(std::min(bytes.size(), 8UL));
      response.headers.emplace_back("Retry-After", trimmed(bytes.substr(0, bytes.find('\n'))));
      bytes.remove_prefix(std::min(bytes.find('\n'), bytes.size() - 1) + 1);
    }
    clear();
    ask(parts.networkManager);
    std::size_t answers = 0;
    for (idle();; idle()) {
      const auto waiting = asked().exchange({});
      if (waiting.empty()) break;
      answers += waiting.size();
      require(answers <= 16, "an answer leads to requests without end");
      const std::optional<std::string> body = bytes.empty() ? std::nullopt : std::optional<std::string>(bytes);
      for (const auto& completion : waiting) completion(body, response, std::nullopt);
    }
    examine();
  }

  void examine() {
    for (const UserRecord& user : engine.getUser())
      require(isUsableUserUUID(user.uuid.value_or("/")), "an unusable user");
    const auto history = engine.getLocationhistoryExtraPolated({}, {});
    for (const std::string& route : history.toGeoJSON()) require(isJson(route), "a route is no JSON");
    if (const auto newest = engine.getLastPastTrip())
      require(newest->pasttrip_id == Settings::shared().lastTripID.get(), "the newest trip is not the last one");
    for (const auto& place : engine.getPointOfInterest())
      require(isJson(place.point_geo_json) && isJson(place.zone_geo_json), "a place is no JSON");
    const Trip next = Tarvo::LastPrediction();
    const auto route = next.toLocations();
    require(route.has_value() == next.toLocationCoordinate2D().has_value(), "a route is and is not one");
    next.getStartTime();
  }
};

void push(Bytes bytes) {
  const auto payload = Value::fromJson(bytes);
  if (!payload || !payload->asDictionary()) return;
  Sdk::shared().answer("", [&](NetworkManager&) { Tarvo().didReceiveRemoteNotification(*payload->asDictionary()); });
}

void logReply(Bytes bytes) {
  const fs::path log = written("Documents/TarvoLog_2024-01-01_u_IOS.txt", "log");
  const fs::path other = written("Documents/notes.txt", "mine"), outside = written("TarvoLog_outside.txt", "mine");
  handleLogUploadReply(std::string(bytes));
  require(fs::exists(other) && fs::exists(outside), "a reply deletes what is no log");
  require(fs::exists(log) || bytes.find("uploaded") != bytes.npos, "a log goes though nobody has it");
}

/// What is read, or what is asked for and answered so. The settings come last: what they hold stays with the process.
struct Target {
  std::string name;
  void (*read)(Bytes);
  void (*ask)(NetworkManager&) = nullptr;
  void run(Bytes bytes) const { ask ? Sdk::shared().answer(bytes, ask) : read(bytes); }
};
const Target kTargets[] = {
    {"json", json},
    {"plist", propertyList},
    {"journal", journal},
    {"gpx", gpx},
    {"nmea", nmea},
    {"urls", urls},
    {"ledger", ledger},
    {"script", script},
    {"canned", canned},
    {"users", {}, [](auto& client) { Settings::shared().userUUID.set({}), client.sendUserToRemoteWebServer("{}"); }},
    {"positions", {}, [](auto& client) { client.sendDataInBatchToRemoteWebServer("[]", "0", "9"); }},
    {"userconf", {}, [](auto& client) { client.userConfigremoteWebServer(); }},
    {"predictions", {}, [](auto& client) { client.getNextTrip(); }},
    {"pasttrips", {}, [](auto& client) { client.getLocationHistoryEXTRAPOLATED(); }},
    {"pois", {}, [](auto& client) { client.getPOI(); }},
    {"push", push},
    {"logreply", logReply},
    {"settings", settings}};

/// A fresh home and a quiet console.
void prepare() {
  static const test::TempDir home;
  setHomeDirectory(home.path());
  setInfoDictionary({{"CFBundleIdentifier", "org.example"}, {"TarvoApiKey", "k"}, {"TarvoClientID", "demo"}});
  LocationManager::setRemoteWebServerURL("http://127.0.0.1:9/api");
  setSystemLogSink([](Bytes line) {
    if (line.starts_with("Fatal error")) std::cerr << line << std::endl;
  });
}

#ifndef TARVO_FUZZ
using Texts = std::vector<std::string>;

std::string changed(const Texts& seeds, Driver& driver) {
  const auto some = [&](std::size_t most) { return static_cast<std::size_t>(driver.upTo(std::int64_t(most))); };
  std::string text = seeds[some(seeds.size() - 1)];
  const std::string& other = seeds[some(seeds.size() - 1)];
  const std::size_t at = some(text.size());
  text.replace(at, some(text.size() - at), other, some(other.size()), some(64));
  if (at < text.size()) text[at] = static_cast<char>(text[at] ^ some(1) << some(7));
  return text;
}

/// How many it has tried, the seeds and as many changed ones as there are runs. What does not come back is in the file.
std::int64_t tryAll(const Target& target, Driver& driver) {
  const fs::path kept = "decoders-" + target.name + ".input", folder = fs::path(TARVO_FAULTS) / "corpus" / target.name;
  Texts seeds;
  for (const auto& file : std::set<fs::path>(fs::directory_iterator(folder), {})) seeds.push_back(bytesOf(file));
  Texts all = seeds;
  for (auto left = driver.runs; left > 0; --left) all.push_back(changed(seeds, driver));
  for (const std::string& input : all) {
    std::ofstream(kept, std::ios::binary) << input;
    ::alarm(20);
    target.run(input);
  }
  fs::remove(kept);
  struct rusage used {};
  ::getrusage(RUSAGE_SELF, &used);
  driver.expect(used.ru_maxrss <= 2 << 20, target.name + " takes too much memory");
  return std::ssize(all);
}
#endif

}  // namespace
}  // namespace tarvo::faults

#ifdef TARVO_FUZZ
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarvo::faults;
  static const char* name = std::getenv("TARVO_FUZZ_TARGET");
  static const Target* target = (prepare(), std::ranges::find(kTargets, name ? name : "", &Target::name));
  require(target != std::end(kTargets), "TARVO_FUZZ_TARGET names no target");
  target->run({reinterpret_cast<const char*>(data), size});
  return 0;
}
#else
int main(int count, char** arguments) {
  using namespace tarvo::faults;
  Driver driver("decoders", count, arguments, 300);
  prepare();
  std::int64_t tried = 0;
  for (const Target& target : kTargets) tried += tryAll(target, driver);
  return driver.end(tried);
}
#endif
