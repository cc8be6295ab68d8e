// Everything that decodes bytes from outside, given anything at all: nothing crashes, hangs or fills the memory, what
// is taken is valid, and what is written again reads as the same.
//
// Built twice: everywhere as a driver, which goes over the corpora and some thousand changed copies of them; with clang
// as a libFuzzer program, started by `tests/faults/run decoders TARGET`. A new decoder is a row of `kTargets` and a
// folder of seeds.
#include <sqlite3.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/GpxReplay.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "engine/EngineParts.h"
#include "faults/Corpus.h"
#include "faults/Driver.h"
#include "faults/WaitingSession.h"
#include "log/Log.h"
#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Encoding.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/urlsession/TransferJournal.h"
#include "records/LatestPrediction.h"
#include "sandbox/Bodies.h"
#include "sandbox/Canned.h"
#include "sandbox/Logs.h"
#include "settings/Settings.h"
#include "support/TempDir.h"
#include "tarvo/Arguments.h"
#include "tarvo/Console.h"
#include "tarvo/Script.h"

namespace tarvo::faults {
namespace {

namespace fs = std::filesystem;
using namespace platform;
using Bytes = std::string_view;

fs::path written(const char* name, Bytes bytes) {
  fs::path file = homeDirectory() / name;
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << bytes;
  return file;
}

/// Equal, a whole number and a double of the same value included: JSON has one kind of number.
bool isSame(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) return a.asDouble() == b.asDouble();
  if (a.asArray() && b.asArray()) return std::ranges::equal(*a.asArray(), *b.asArray(), isSame);
  if (!a.asDictionary() || !b.asDictionary()) return a == b;
  return std::ranges::equal(*a.asDictionary(), *b.asDictionary(), [](const auto& one, const auto& other) {
    return one.first == other.first && isSame(one.second, other.second);
  });
}

bool isJson(const std::optional<std::string>& text) { return !text || parseJson(*text); }

void json(Bytes bytes) {
  const auto value = Value::fromJson(bytes);
  if (!value) return;
  concat(*value);
  const auto text = value->toJson();
  require(text.has_value(), "what was read as JSON cannot be written");
  const auto again = Value::fromJson(*text);
  require(again && isSame(*value, *again), "JSON that was written reads as another value");
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
  auto inFile = parsePropertyList(textOf(file));
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
  std::string text = concat(task.taskIdentifier, "|", task.file.native(), "|", request.url, "|", request.httpMethod,
                            "|", request.networkServiceType);
  for (const auto& [name, value] : request.headers) text += concat("|", name, ":", value);
  if (outcome) text += concat("|", outcome->statusCode, "|", outcome->data, "|", outcome->error);
  return text;
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

void gpx(Bytes bytes) {
  std::string error;
  const auto trace = GpxTrace::read(written("trip.gpx", bytes), error);
  require(trace ? !trace->fixes.empty() : !error.empty() && error.find('\n') == error.npos, "no trip, and no reason");
  if (!trace) return;
  for (const CLLocation& fix : trace->fixes) {
    for (const double value : {fix.altitude, fix.speed, fix.course, secondsSince1970(fix.timestamp)})
      require(std::isfinite(value), "a fix of a trip has a value that is not finite");
    require(std::abs(fix.coordinate.latitude) <= 90 && std::abs(fix.coordinate.longitude) <= 180 &&
                fix.horizontalAccuracy > 0 && std::isfinite(fix.horizontalAccuracy),
            "a fix of a trip is off the globe");
    fix.description();
  }
}

void dates(Bytes bytes) {
  const std::string text(bytes);
  static const auto& formatter = *new DateFormatter("YYYY-MM-dd'T'HH:mm:ss.SSSZ");
  for (const auto date : {parseTimestamp(bytes), cli::parseDate(text), formatter.date(bytes)}) {
    if (!date) continue;
    const std::string iso = cli::isoDate(*date);
    concat(*date, formatter.string(*date), LocalizedTime{*date});
    if (iso.size() == 20)
      require(cli::parseDate(iso) == floor<std::chrono::seconds>(*date), "a date that was written reads as another");
  }
  const auto speed = cli::parseSpeed(text);
  require(!speed || !speed->factor || (*speed->factor > 0 && std::isfinite(*speed->factor)), "an impossible speed");
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

/// Names, identifiers and secrets, which become parts of URLs, headers and files.
void texts(Bytes bytes) {
  require(base64Decode(base64Encode(bytes)) == bytes, "Base64 that was written reads as another text");
  base64Decode(bytes);
  upperCaseUuid(trimmed(bytes));
  require(isPlainFileName(fileNameOf(bytes)) || bytes.empty(), "a text makes no file name");
  for (const bool isUsable : {isUsableClientID(bytes), isUsableUserUUID(bytes)})
    require(!isUsable || isValidHttpUrl(concat("http://h/v1/", bytes, "/users")), "a usable name makes no URL");
  require(!isUsableUserUUID(bytes) || isPlainFileName(concat("TarvoLog_", bytes, ".txt")), "a user makes no file name");
}

/// Lines `name=value` in place of the texts that stand beside the records of a store.
void metadata(Bytes bytes) {
  static const auto model = ObjectStore().managedObjectModel();
  static const fs::path file = homeDirectory() / "store.sqlite";
  const auto opens = [] {
    NSPersistentStoreCoordinator coordinator(model);
    return !coordinator.addPersistentStore(NSSQLiteStoreType, "ConfigurationForLocationsAndUsers", file);
  };
  const auto run = [](const std::string& statements) {
    sqlite3* database = nullptr;
    sqlite3_open(file.c_str(), &database);
    const bool done = sqlite3_exec(database, statements.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(database);
    return done;
  };
  const auto quoted = [](Bytes text) {
    std::string hex = "CAST(x'";
    for (const unsigned char c : text) hex += {"0123456789abcdef"[c / 16], "0123456789abcdef"[c % 16]};
    return hex + "' AS TEXT)";
  };
  static const bool made = opens() && run("CREATE TABLE _kept AS SELECT * FROM _metadata");
  std::istringstream lines{std::string(bytes)};
  std::string sql;
  for (std::string line; std::getline(lines, line);) {
    const auto equals = line.find('=');
    sql += concat("REPLACE INTO _metadata VALUES (", quoted(line.substr(0, equals)), ", ",
                  equals == line.npos ? "NULL" : quoted(line.substr(equals + 1)), ");");
  }
  require(made && run(sql), "metadata cannot be written");
  opens();
  require(run("DELETE FROM _metadata; INSERT INTO _metadata SELECT * FROM _kept") && opens(),
          "a store is not whole when its metadata is put right");
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

void bodies(Bytes bytes) {
  std::string why;
  const auto positions = sandbox::readPositions(bytes, "u", why);
  require(positions ? !positions->empty() : !why.empty(), "positions are refused without a reason");
  sandbox::readDevice(bytes, why);
  for (const auto& form : sandbox::forms()) sandbox::readForm(bytes, form, why);
  sandbox::readBasicCredentials(bytes);
  sandbox::readBasicCredentials("Basic " + base64Encode(bytes));
}

void logUpload(Bytes bytes) {
  std::string why;
  const auto log = sandbox::readLogUpload(bytes, why);
  require(log ? isPlainFileName(log->file) && log->content.size() < bytes.size() : !why.empty(),
          "a log is kept under a name that leads elsewhere");
}

/// The whole SDK, registered and with a fix, whose requests wait for the driver.
struct Sdk {
  Tarvo tarvo;
  LocationManager& engine = LocationManager::sharedInstance();
  EngineParts& parts = EngineParts::of(engine);

  static Sdk& shared() {
    LocationManager::setRemoteWebServerURL("http://127.0.0.1:9/api");
    setInfoDictionary({{"CFBundleIdentifier", "org.example"}, {"TarvoApiKey", "k"}, {"TarvoClientID", "demo"}});
    static auto* sdk = new Sdk;
    return *sdk;
  }
  Sdk() {
    Tarvo::setDeliveryOptions({.dropsProtocolBreaks = true});
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
    settings.tokenSent.set(false);
    settings.deviceToken.set("token");
    settings.lastTripID.set(INT64_MAX);
    engine.setAlreadyReceivedUUID(false);
    UserDefaults::standard().remove(names::kLogLevel);
    Log::setLOGLEVEL(Log::kOff);
  }
  /// Asks, and gives to this and to every request that follows the same answer.
  void answer(Bytes bytes, const std::function<void()>& ask);
  void examine();
};

void Sdk::answer(Bytes bytes, const std::function<void()>& ask) {
  HTTPURLResponse response{"http://127.0.0.1:9/api", 200, {}};
  if (bytes.starts_with("HTTP ")) {  // status and headers, a line each, then an empty one
    response.statusCode = std::atoi(std::string(bytes.substr(5, 3)).c_str());
    for (bytes.remove_prefix(std::min(bytes.find('\n'), bytes.size() - 1) + 1); !bytes.empty();) {
      const Bytes line = bytes.substr(0, bytes.find('\n'));
      bytes.remove_prefix(std::min(bytes.size(), line.size() + 1));
      if (line.empty()) break;
      const auto colon = std::min(line.find(':'), line.size());
      response.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(std::min(colon + 1, line.size()))));
    }
  }
  clear();
  ask();
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

void Sdk::examine() {
  for (const UserRecord& user : engine.getUser())
    require(isUsableUserUUID(user.uuid.value_or("/")), "an unusable user");
  const auto history = engine.getLocationhistoryExtraPolated({}, {});
  history.getBoundingBox();
  for (const std::string& route : history.toGeoJSON()) require(isJson(route), "a route is no JSON");
  if (const auto newest = engine.getLastPastTrip())
    require(newest->pasttrip_id == Settings::shared().lastTripID.get(), "the newest trip is not the last one");
  for (const auto& place : engine.getPointOfInterest())
    require(isJson(place.point_geo_json) && isJson(place.zone_geo_json), "a place is no JSON");
  const Trip next = Tarvo::LastPrediction();
  const auto route = next.toLocations();
  require(route.has_value() == next.toLocationCoordinate2D().has_value(), "a route is and is not one");
  require(!route || route->empty() || next.getStartTrip(), "a route does not begin");
  next.getStartTime();
}

template <auto Operation, class... Arguments>
void replies(Bytes bytes, const Arguments&... arguments) {
  Sdk& sdk = Sdk::shared();
  sdk.answer(bytes, [&] { (sdk.parts.networkManager.*Operation)(arguments...); });
}

void users(Bytes bytes) {
  Sdk& sdk = Sdk::shared();
  sdk.answer(bytes, [&] {
    Settings::shared().userUUID.set(std::nullopt);
    sdk.parts.networkManager.sendUserToRemoteWebServer("{}");
  });
}

/// In both ways of delivery.
void positions(Bytes bytes) {
  for (const bool confirmed : {false, true}) {
    Tarvo::setDeliveryOptions({.confirmed = confirmed, .dropsProtocolBreaks = true});
    replies<&NetworkManager::sendDataInBatchToRemoteWebServer>(bytes, "[]", "0", "9");
  }
}

/// Calls whose answer is their status.
void calls(Bytes bytes) {
  Sdk& sdk = Sdk::shared();
  sdk.answer(bytes, [&client = sdk.parts.networkManager] {
    client.sendTokenremoteWebServer();
    client.subscriptionRegiter("s", "n");
    client.subscriptionUnRegister("s");
    client.setTags("a", "b");
    client.unsetTags("a");
    client.resetBackend();
    client.resetGeoProfile();
  });
}

void push(Bytes bytes) {
  const auto payload = Value::fromJson(bytes);
  if (!payload || !payload->asDictionary()) return;
  Sdk& sdk = Sdk::shared();
  const auto isOurs = findString(*payload->asDictionary(), "messageFrom") == "tarvo";
  sdk.answer("", [&] {
    require(sdk.tarvo.didReceiveRemoteNotification(*payload->asDictionary()) == isOurs, "a push for somebody else");
  });
}

void logReply(Bytes bytes) {
  const fs::path log = written("Documents/TarvoLog_2024-01-01_u_IOS.txt", "log");
  const fs::path other = written("Documents/notes.txt", "mine"), outside = written("TarvoLog_outside.txt", "mine");
  handleLogUploadReply(std::string(bytes));
  require(fs::exists(other) && fs::exists(outside), "a reply deletes what is no log");
  require(fs::exists(log) || bytes.find("uploaded") != bytes.npos, "a log goes though nobody has it");
}

struct Target {
  std::string name;
  void (*run)(Bytes);
};
/// The settings come last: what they hold stays with the process.
const Target kTargets[] = {
    {"json", json},
    {"plist", propertyList},
    {"journal", journal},
    {"gpx", gpx},
    {"dates", dates},
    {"urls", urls},
    {"texts", texts},
    {"metadata", metadata},
    {"script", script},
    {"canned", canned},
    {"bodies", bodies},
    {"logupload", logUpload},
    {"users", users},
    {"positions", positions},
    {"userconf", [](Bytes bytes) { replies<&NetworkManager::userConfigremoteWebServer>(bytes); }},
    {"predictions", [](Bytes bytes) { replies<&NetworkManager::getNextTrip>(bytes); }},
    {"pasttrips", [](Bytes bytes) { replies<&NetworkManager::getLocationHistoryEXTRAPOLATED>(bytes); }},
    {"pois", [](Bytes bytes) { replies<&NetworkManager::getPOI>(bytes); }},
    {"calls", calls},
    {"push", push},
    {"logreply", logReply},
    {"settings", settings}};

/// A fresh home and a quiet console.
void prepare() {
  static const test::TempDir home;
  setHomeDirectory(home.path());
  setSystemLogSink([](Bytes line) {
    if (line.starts_with("Fatal error")) std::cerr << line << std::endl;
  });
}

#ifdef TARVO_FUZZ
const Target& chosenTarget() {
  const char* name = std::getenv("TARVO_FUZZ_TARGET");
  const auto found = std::ranges::find(kTargets, name ? name : "", &Target::name);
  require(found != std::end(kTargets), "TARVO_FUZZ_TARGET names no target");
  prepare();
  return *found;
}
#else
constexpr unsigned kMostSeconds = 20;
constexpr long kMostKilobytes = 2 << 20;

/// Tries the seeds and as many changed ones as there are runs. Answers how many that were; what does not come back is
/// in the file.
std::int64_t tryAll(const Target& target, Driver& driver) {
  const Texts seeds = seedsOf(target.name), words = wordsOf(target.name);
  const fs::path kept = "decoders-" + target.name + ".input";
  const auto all = std::ssize(seeds) + driver.runs;
  for (std::int64_t number = 0; number < all; ++number) {
    const std::string input =
        number < std::ssize(seeds) ? seeds[static_cast<std::size_t>(number)] : changed(seeds, words, driver);
    std::ofstream(kept, std::ios::binary) << input;
    ::alarm(kMostSeconds);
    target.run(input);
  }
  ::alarm(0);
  fs::remove(kept);
  struct rusage used {};
  ::getrusage(RUSAGE_SELF, &used);
  driver.expect(used.ru_maxrss <= kMostKilobytes, target.name + " takes too much memory");
  return all;
}
#endif

}  // namespace
}  // namespace tarvo::faults

#ifdef TARVO_FUZZ
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto& target = tarvo::faults::chosenTarget();
  target.run({reinterpret_cast<const char*>(data), size});
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
