#include "unit/Unit.h"

#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <utility>

#include <tarvo/HostKeys.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/SystemLog.h>

#include "unit/Control.h"
#include "unit/DeviceClock.h"
#include "unit/Flushing.h"
#include "unit/Intake.h"
#include "unit/Power.h"
#include "unit/QuickEnds.h"
#include "unit/Receivers.h"
#include "unit/Requests.h"
#include "unit/Secret.h"
#include "unit/StatusLine.h"
#include "unit/Supervisor.h"
#include "unit/Uploads.h"

namespace tarvo::unit {
namespace {

using platform::LocationService;
using platform::Seconds;
using receivers::Condition;

/// Another process on this home may be about to end, as at a restart.
constexpr double kOtherProcess = 3;
constexpr Seconds kBetweenStatus{10};
/// What a flush may wait for beyond its time: another process, a resolver.
constexpr Seconds kBeyondFlush{15};

void note(const std::string& line) {
  const std::string text = "tarvo: " + line + "\n";
  std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string countOf(std::int64_t positions) {
  return std::to_string(positions) + (positions == 1 ? " position is" : " positions are");
}

/// Whether the SDK's messages are printed. The last words of a process that has to stop always are.
std::atomic<bool> prints = false;

void printMessages() {
  platform::setSystemLogSink([](std::string_view message) {
    if (!prints && !message.starts_with("Fatal error: ")) return;
    const std::string line = std::string(message) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
}

/// Calls at the end of each delivery that has brought a position.
class Listener final : public TarvoDelegate {
 public:
  explicit Listener(std::function<void()> stored) : stored_(std::move(stored)) {}
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<platform::CLLocation>&) override { stored_(); }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory&) override {}
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override {}

 private:
  const std::function<void()> stored_;
};

class Unit {
 public:
  Unit(const OptionReader& reader, const Host& host) : reader_(reader), host_(host), options_(reader.read()) {}

  /// The whole flow.
  int run() {
    // Who reads its lines may end before it.
    ::signal(SIGPIPE, SIG_IGN);
    // Who asks for a reload does not want the end, however early it is; an end may come at once until there is work.
    loop_.onSignals({SIGHUP}, [this] { reload(); });
    describeHost();
    holdHome();
    loop_.onSignals({SIGTERM, SIGINT}, [this] { stop(); });
    requests_.emplace(*tarvo_, loop_,
                      Requests::Unit{[this] { return status(); }, [this] { return isActive_; }, [this] { stored(); }});
    control_.emplace(loop_, options_.home,
                     [this](const auto& request, const auto& reply) { requests_->take(request, reply); });
    openReceiver();
    if (!clock_ || clock_->isPlausible())
      activate();
    else
      waitForTime();
    supervisor_.ready();
    return loop_.run();
  }

 private:
  void describeHost();
  void holdHome();
  void openReceiver();
  void waitForTime();
  void activate();
  void reload();
  void stop();
  void noteWhatIsLeft(FlushResult result) const;

  void changed(Condition condition, const std::string& line);
  void stored();
  void showStatus();
  std::string line(const Health& health) const;
  platform::Dictionary status() const;

  const OptionReader& reader_;
  const Host& host_;
  UnitOptions options_;
  Loop loop_;
  Supervisor supervisor_{loop_, [this] { showStatus(); }};
  const std::unique_ptr<Loop::Timer> laterStatus_ = loop_.timer([this] { showStatus(); });
  std::shared_ptr<DeviceClock> clock_;  ///< where the machine's own cannot be right
  std::optional<Tarvo> tarvo_;
  std::string secret_;
  std::shared_ptr<Intake> intake_;
  std::shared_ptr<receivers::Receiver> receiver_;
  std::optional<Uploads> uploads_;
  std::optional<Power> power_;
  std::optional<Requests> requests_;
  std::optional<Control> control_;
  std::shared_ptr<void> channel_;
  std::unique_ptr<Loop::Timer> lastMoment_;
  bool isActive_ = false, isStopping_ = false, savingFails_ = false;
  Condition condition_ = Condition::resting;
  std::string receiverLine_;
  std::chrono::steady_clock::time_point shown_;
};

/// All that has to be set before the SDK is touched first.
void Unit::describeHost() {
  host_.check(options_);
  prints = options_.verbose;
  printMessages();
  ::umask(S_IRWXG | S_IRWXO);
  std::error_code failure;
  std::filesystem::create_directories(options_.home, failure);
  if (failure) throw UnitError("the home " + options_.home.string() + " cannot be made: " + failure.message());
  if (!options_.apiSecretFile.empty()) {
    std::string warning, error;
    const auto secret = readSecret(options_.apiSecretFile, warning, error);
    if (!secret) throw OptionError("api-secret-file: " + error);
    if (!warning.empty()) note(warning);
    secret_ = *secret;
  }
  if (!options_.backend.empty() && !LocationManager::setRemoteWebServerURL(options_.backend, options_.allowPlainHttp))
    throw OptionError("backend: " + options_.backend + " is neither an https URL nor plain http to this machine");
  if (platform::Clock::current()->now() < dayOfBuild()) {
    clock_ = std::make_shared<DeviceClock>(platform::Clock::current());
    platform::Clock::install(clock_);
  }
  platform::setHomeDirectory(options_.home);
  platform::setInfoDictionary({{keys::kBundleIdentifier, options_.bundleID},
                               {keys::kApiKey, options_.apiKey},
                               {keys::kClientID, options_.clientID}});
  if (!platform::setTransferOptions(options_.transfers)) throw UnitError("there has been a transfer already");
  for (const auto& file :
       {options_.transfers.caFile, options_.transfers.clientCertificateFile, options_.transfers.clientKeyFile})
    if (!file.empty() && ::access(file.c_str(), R_OK) != 0) note(file.string() + ": " + std::strerror(errno));
  Tarvo::setDeliveryOptions(options_.delivery);
  Tarvo::setStorageLimits(options_.storage);
}

/// One unit a home.
void Unit::holdHome() {
  tarvo_.emplace();
  LocationManager& engine = tarvo_->locationManager();
  if (!tarvo_->syncStatus().storeAvailable)
    throw UnitError("the store in " + options_.home.string() + " cannot be used");
  if (const auto reason = engine.claimStore(kOtherProcess)) throw UnitError(options_.home.string() + ": " + *reason);
  if (!options_.clientID.empty() && !Tarvo::setClientID(options_.clientID))
    throw OptionError("client-id: '" + options_.clientID + "' cannot stand in a URL");
}

void Unit::openReceiver() {
  intake_ = std::make_shared<Intake>(
      loop_, clock_,
      Intake::Told{[this] { activate(); },
                   [this](Condition condition, const std::string& line) { changed(condition, line); }});
  // The location service may let go of it last.
  receiver_ = std::shared_ptr<receivers::Receiver>(
      unit::openReceiver(options_, *intake_).release(),
      [intake = intake_](const receivers::Receiver* receiver) { delete receiver; });
}

void Unit::waitForTime() {
  note("the clock of this machine is not set: waiting for the time, which the receiver may know");
  supervisor_.status("waiting for the time");
  loop_.onClockSet([this] {
    if (clock_->isPlausible()) activate();
  });
  receiver_->start(-1);
}

void Unit::activate() {
  if (isActive_ || isStopping_) return;
  isActive_ = true;
  intake_->open();
  uploads_.emplace(*tarvo_, loop_, Seconds(options_.uploadInterval));
  tarvo_->setDelegate(std::make_shared<Listener>([this, post = loop_.poster()] { post([this] { stored(); }); }));
  if (options_.logLevel) setLogLevel(*options_.logLevel);
  if (options_.mode >= Tarvo::BACKEND_BACKGROUND && secret_.empty() && !LocationManager::userUUID())
    note("without the secret of the API key this new device cannot register, and no position can be sent");
  // Only now: known earlier, it would make the engine register before the key has been read.
  NetworkManager::setApiKeySecret(secret_);
  tarvo_->activate(options_.mode);
  if (options_.state != "active") setState(options_.state);
  LocationService::shared().setSource(receiver_);
  power_.emplace(loop_, [this] { stored(); });
  if (!options_.channel.empty()) channel_ = host_.connect(*tarvo_, options_, secret_);
  uploads_->wake();
  showStatus();
}

void Unit::reload() {
  if (!isStopping_) supervisor_.reloading();
  try {
    const UnitOptions fresh = reader_.read();
    std::string kept;
    for (const std::string& name : needRestart(options_, fresh)) kept += (kept.empty() ? "" : ", ") + name;
    const std::string state = std::exchange(options_, reloaded(options_, fresh)).state;
    prints = options_.verbose;
    Tarvo::setDeliveryOptions(options_.delivery);
    Tarvo::setStorageLimits(options_.storage);
    if (isActive_) {
      if (options_.state != state) setState(options_.state);
      if (options_.logLevel) setLogLevel(*options_.logLevel);
      uploads_->setInterval(Seconds(options_.uploadInterval));
    }
    note("the options were read again" + (kept.empty() ? std::string() : "; a new start is needed for " + kept));
  } catch (const OptionError& error) {
    note(std::string(error.what()) + "; the options stay as they were");
  }
  if (!isStopping_) supervisor_.reloaded();
}

void Unit::stop() {
  if (std::exchange(isStopping_, true)) return;
  // From here on the system ends the process at once.
  loop_.endOnSignals({SIGTERM, SIGINT});
  const Seconds bound(isActive_ ? options_.flushTimeout : 0);
  supervisor_.stopping(bound + kBeyondFlush);
  supervisor_.status("ending");
  LocationService::shared().setSource(nullptr);
  receiver_.reset();
  if (!isActive_) return loop_.end(0);
  isActive_ = false;
  lastMoment_ = loop_.timer([this] { loop_.end(0); });
  lastMoment_->arm(bound + kBeyondFlush);
  try {
    flushBeside(loop_, bound, [this](FlushResult result) {
      noteWhatIsLeft(result);
      loop_.end(0);
    });
  } catch (const std::system_error& error) {
    note(std::string("what is unsent goes after the next start: ") + error.what());
    loop_.end(0);
  }
}

void Unit::noteWhatIsLeft(FlushResult result) const {
  const auto sync = tarvo_->syncStatus();
  const auto left = sync.unsent + sync.awaiting;
  if (!sync.storeAvailable)
    note("the store cannot be used any more; what it holds goes after the next start");
  else if (result != FlushResult::delivered && result != FlushResult::modeForbids && left > 0)
    note(countOf(left) + " unsent (" + reasonOf(result) + "); sent after the next start");
  if (sync.unsaved > 0) note(countOf(sync.unsaved) + " lost: the store could not be written");
}

void Unit::changed(Condition condition, const std::string& line) {
  condition_ = condition;
  receiverLine_ = line;
  if (isStopping_) return;
  note(line);
  if (condition == Condition::ended) return stop();
  showStatus();
}

/// Positions may have come to the store.
void Unit::stored() {
  if (!isActive_) return;
  uploads_->wake();
  showStatus();
}

/// At most each ten seconds; what has changed meanwhile is told after them.
void Unit::showStatus() {
  if (isStopping_ || !isActive_ || laterStatus_->isArmed()) return;
  const Seconds passed = std::chrono::steady_clock::now() - shown_;
  if (passed < kBetweenStatus) return laterStatus_->arm(kBetweenStatus - passed);
  shown_ = std::chrono::steady_clock::now();
  const Health health = tarvo_->health();
  const bool savingFails = health.positions.unsaved > 0;
  if (std::exchange(savingFails_, savingFails) != savingFails)
    note(savingFails ? "positions cannot be saved: " + health.store.lastError.value_or("")
                     : "positions are saved again");
  supervisor_.status(line(health));
}

std::string Unit::line(const Health& health) const {
  const std::string receiver =
      condition_ == Condition::receiving || receiverLine_.empty()
          ? (condition_ == Condition::receiving ? "receiving from " : "waiting for ") + nameOfReceiver(options_)
          : receiverLine_;
  if (!isActive_) return (isStopping_ ? "ending; " : "waiting for the time; ") + receiver;
  const bool isUnknown = options_.mode >= Tarvo::BACKEND_BACKGROUND && !LocationManager::userUUID();
  return statusLine(receiver, health, platform::Clock::current()->now()) +
         (isUnknown ? "; not registered at the backend" : "");
}

platform::Dictionary Unit::status() const {
  static constexpr const char* kNames[] = {"resting", "lost", "searching", "receiving", "refused", "ended"};
  const receivers::FixOrder::Statistics fixes = intake_->statistics();
  const auto text = platform::Value::fromJson(host_.status(*tarvo_, options_.home));
  return {{"line", line(tarvo_->health())},
          {"active", isActive_},
          {"receiver", platform::Dictionary{{"name", nameOfReceiver(options_)},
                                            {"condition", kNames[static_cast<int>(condition_)]},
                                            {"line", receiverLine_},
                                            {"fixes", fixes.taken},
                                            {"passed", fixes.passed},
                                            {"doubles", fixes.doubles},
                                            {"steps_back", fixes.stepsBack},
                                            {"implausible", fixes.implausible}}},
          {"status", text.value_or(nullptr)}};
}

/// Waits if earlier starts have failed. False if a signal has ended it meanwhile.
bool waitForTurn(const QuickEnds& quickEnds) {
  timespec now = {};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  const Seconds pause = quickEnds.beforeStart(Seconds(double(now.tv_sec)));
  if (pause <= Seconds(0)) return true;
  sigset_t ending;
  sigemptyset(&ending);
  for (const int signal : {SIGTERM, SIGINT}) sigaddset(&ending, signal);
  ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  const auto seconds = static_cast<time_t>(pause.count());
  note("earlier starts have failed: waiting " + std::to_string(seconds) + " s");
  const timespec span = {seconds, 0};
  return ::sigtimedwait(&ending, nullptr, &span) < 0;
}

}  // namespace

int runUnit(const OptionReader& reader, const Host& host) {
  const char* const folder = std::getenv("RUNTIME_DIRECTORY");
  const QuickEnds quickEnds(folder != nullptr ? folder : "");
  try {
    const int status = waitForTurn(quickEnds) ? Unit(reader, host).run() : 0;
    quickEnds.endedWell();
    return status;
  } catch (const std::system_error& error) {
    throw UnitError(error.what());
  }
}

}  // namespace tarvo::unit
