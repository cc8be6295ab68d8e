#include "Replay.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/GpxSource.h>
#include <tarvo/platform/MainQueue.h>

#include "Console.h"
#include "Failure.h"
#include "Home.h"
#include "Progress.h"
#include "sandbox/Backend.h"

namespace tarvo::cli {
namespace {

using platform::GpxTrace;
using platform::ManualClock;
using platform::Seconds;

constexpr const char* kDefaultClient = "demo";
constexpr const char* kDefaultKey = "demo-key";
constexpr const char* kDefaultSecret = "demo-secret";
/// An upload that was given up holds its channel this long, in trip time.
constexpr Seconds kChannelHeld{180};
/// Retries against a backend that refuses come this often at most, in real time.
constexpr Seconds kFirstPause{0.05}, kLongestPause{1};
/// How long an interrupted play waits for what is under way.
constexpr double kLastSeconds = 5;

void note(const std::string& text) { std::cerr << "tarvo: " << text << std::endl; }

/// Counts the fixes that the host is told of.
class Listener final : public TarvoDelegate {
 public:
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<platform::CLLocation>& newLocations) override {
    delivered += newLocations.size();
  }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory&) override {}
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override {}

  std::atomic<std::uint64_t> delivered = 0;
};

GpxTrace readTrace(const std::string& file) {
  std::string error;
  auto trace = GpxTrace::read(file, error);
  if (!trace) throw Failure{kUsage, error};
  if (trace->untimed > 0) note("skipped " + std::to_string(trace->untimed) + " points without a time");
  if (trace->outOfRange > 0) note("skipped " + std::to_string(trace->outOfRange) + " points out of range");
  if (trace->backwards > 0) note(std::to_string(trace->backwards) + " fixes go back in time; kept in file order");
  return std::move(*trace);
}

/// A property list that is there stays as it is unless keys are given.
void describeHost(const Home& home, const ReplayOptions& options) {
  HostKeys keys{options.apiKey, options.clientID};
  if (!home.hasPropertyList()) {
    if (!keys.clientID) keys.clientID = kDefaultClient;
    if (!keys.apiKey && options.sandbox) keys.apiKey = kDefaultKey;
  }
  if (keys.clientID || keys.apiKey) home.writeKeys(keys);
}

/// The sandbox serves the client that the property list names.
std::unique_ptr<sandbox::Backend> startSandbox(const Home& home, const ReplayOptions& options) {
  const HostKeys keys = home.readKeys();
  const sandbox::Account account{keys.clientID.value_or(kDefaultClient), keys.apiKey.value_or(kDefaultKey),
                                 options.apiSecret.value_or(kDefaultSecret)};
  const std::string archive = options.sandboxArchive.value_or(home.sandboxArchive().string());
  try {
    auto backend = std::make_unique<sandbox::Backend>(account, archive);
    backend->start();
    return backend;
  } catch (const std::exception& error) {
    throw Failure{kUnusable, "the sandbox cannot serve from " + archive + ": " + error.what()};
  }
}

/// One run, from the first fix to the summary.
class Session {
 public:
  Session(const ReplayOptions& options, const Home& home, std::shared_ptr<ManualClock> clock)
      : options_(options), home_(home), clock_(std::move(clock)) {}

  void activate() {
    if (!engine().syncStatus().storeAvailable)
      throw Failure{kUnusable, "the store " + home_.store().string() + " cannot be used; nothing was collected"};
    if (const auto client = home_.readKeys().clientID; client && *client != Tarvo::clientID())
      throw Failure{kUsage, "the client id '" + *client + "' cannot stand in a URL"};
    tarvo_.setDelegate(listener_);
    const bool registered = LocationManager::userUUID().has_value();
    if (uploads() && !home_.readKeys().complete()) {
      note(home_.propertyList().string() + " lacks TarvoApiKey or TarvoClientID; give --api-key and --client-id" +
           (registered ? "" : ", or no position can be sent"));
      identifiable_ = registered;
    }
    const std::string secret = options_.apiSecret.value_or(options_.sandbox ? kDefaultSecret : "");
    if (uploads() && secret.empty() && !registered) {
      note("without --api-secret this new device cannot register, and no position can be sent");
      identifiable_ = false;
    }
    // Only now: known earlier, it would make the engine register before the key has been read.
    NetworkManager::setApiKeySecret(secret);
    tarvo_.activate(options_.mode);
  }

  void play(GpxTrace trace) {
    const std::size_t total = trace.fixes.size();
    Progress progress(engine(), total, !options_.log);
    fixes_ = platform::GpxSource(std::move(trace), clock_).play(options_.speed.factor, [&](std::size_t fixes) {
      progress.update(fixes);
      return !interrupted();
    });
    if (interrupted()) {
      Tarvo::waitUntilIdle(kLastSeconds);
    } else {
      sendTheRest(progress);
    }
    progress.show();
    seconds_ = progress.seconds();
  }

  int summarize(sandbox::Backend* sandbox) const {
    const LocationManager::SyncStatus sync = engine().syncStatus();
    const std::optional<std::string> user = LocationManager::userUUID();
    const std::int64_t left = sync.unsent + sync.awaiting;
    if (options_.json) {
      const nlohmann::ordered_json summary = {
          {"fixes", fixes_},
          {"delivered", listener_->delivered.load()},
          {"stored", sync.stored},
          {"unsent", sync.unsent},
          {"awaiting", sync.awaiting},
          {"acknowledged", sync.acknowledged},
          {"batches", sync.batchesPosted},
          {"uuid", user ? nlohmann::ordered_json(*user) : nlohmann::ordered_json(nullptr)},
          {"seconds", seconds_},
      };
      std::cout << summary.dump() << std::endl;
    } else {
      std::cout << std::fixed << std::setprecision(1) << "fixes         " << fixes_ << " in " << seconds_ << " s\n"
                << "delivered     " << listener_->delivered << "\n"
                << "stored        " << sync.stored << "\n"
                << "unsent        " << sync.unsent << "\n"
                << "awaiting      " << sync.awaiting << "\n"
                << "acknowledged  " << sync.acknowledged << "\n"
                << "batches       " << sync.batchesPosted << "\n"
                << "user          " << user.value_or("not registered") << "\n";
      if (sandbox != nullptr) {
        const sandbox::Holdings held = sandbox->holdings();
        std::cout << "sandbox       " << held.positions << " positions, " << held.missing << " missing, "
                  << held.repeats << " repeats\n";
      }
      std::cout << "home          " << home_.directory().string() << std::endl;
    }
    if (interrupted()) return kInterrupted;
    if (!uploads() || left == 0) return kDone;
    note(std::to_string(left) + " positions are not acknowledged; the next run on this home sends them");
    return kLeft;
  }

 private:
  LocationManager& engine() const { return tarvo_.locationManager(); }
  bool uploads() const { return options_.mode >= Tarvo::BACKEND_BACKGROUND; }

  /// The pipeline acts on events alone, and after the last fix none comes: so it is started here until all is
  /// acknowledged, with the trip's clock running on where the channel is held.
  void sendTheRest(Progress& progress) {
    const double end = progress.seconds() + options_.deadlineSeconds;
    const auto secondsLeft = [&] { return end - progress.seconds(); };
    const auto settle = [&] {
      while (!Tarvo::waitUntilIdle(std::clamp(secondsLeft(), 0.0, 1.0)) && secondsLeft() > 0 && !interrupted()) {
      }
    };
    settle();
    std::int64_t before = std::numeric_limits<std::int64_t>::max();
    Seconds pause = kFirstPause;
    while (uploads() && secondsLeft() > 0 && !interrupted()) {
      engine().sendDataInBatchToRemoteWebServer();
      settle();
      const LocationManager::SyncStatus sync = engine().syncStatus();
      const std::int64_t left = sync.unsent + sync.awaiting;
      if (left == 0 || !identifiable_) return;
      if (left < before) {
        pause = kFirstPause;
      } else {
        platform::MainQueue::main().runFor(std::min(pause, Seconds(std::max(secondsLeft(), 0.0))));
        pause = std::min(2 * pause, kLongestPause);
      }
      before = left;
      // Time must not pass over a transfer in flight.
      if (secondsLeft() <= 0 || interrupted()) return;
      clock_->advance(kChannelHeld);
    }
  }

  const ReplayOptions& options_;
  const Home& home_;
  const std::shared_ptr<ManualClock> clock_;
  const std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  Tarvo tarvo_;
  bool identifiable_ = true;
  std::size_t fixes_ = 0;
  double seconds_ = 0;
};

}  // namespace

int replay(const ReplayOptions& options) {
  installConsole(options.log);
  if (options.backend && !LocationManager::setRemoteWebServerURL(*options.backend))
    throw Failure{kUsage, "--backend: " + *options.backend + " is neither an https URL nor plain http to this machine"};
  GpxTrace trace = readTrace(options.trace);

  const Home home = options.home ? Home(*options.home) : Home::temporary();
  home.create();
  if (!options.home) note("the home of this run is " + home.directory().string());
  describeHost(home, options);
  std::unique_ptr<sandbox::Backend> sandbox;
  if (options.sandbox) {
    sandbox = startSandbox(home, options);
    LocationManager::setRemoteWebServerURL(sandbox->baseURL());
  }

  const auto clock = std::make_shared<ManualClock>(trace.fixes.front().timestamp);
  platform::Clock::install(clock);
  platform::setHomeDirectory(home.directory());
  watchInterrupts();
  Session session(options, home, clock);
  session.activate();
  session.play(std::move(trace));
  const int status = session.summarize(sandbox.get());
  // With work in flight the backend must outlast it: refused transfers would count as answers. It ends with the
  // process.
  if (status != kDone) static_cast<void>(sandbox.release());
  return status;
}

}  // namespace tarvo::cli
