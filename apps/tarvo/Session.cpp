#include "Session.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <limits>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/MainQueue.h>

#include "Arguments.h"
#include "Channel.h"
#include "Console.h"
#include "Status.h"
#include "sandbox/Backend.h"

namespace tarvo::cli {
namespace {

using platform::Seconds;
using platform::UIDevice;

/// An upload that was given up holds its channel this long, in trip time.
constexpr Seconds kChannelHeld{180};
/// Retries against a backend that refuses come this often at most, in real time.
constexpr Seconds kFirstPause{0.05}, kLongestPause{1};
/// How long an interrupted play waits for what is under way, and how soon any wait hears of an interrupt.
constexpr double kLastSeconds = 1, kOneWait = 0.2;
constexpr std::chrono::seconds kOtherProcess{10};
/// Longer than the time-out of a silent transfer.
constexpr double kLongestWork = 65;

/// Waits until all work is done, at most that long; an interrupt ends the wait.
void settle(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  const auto left = [&] { return std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count(); };
  while (!interrupted() && !Tarvo::waitUntilIdle(std::clamp(left(), 0.0, kOneWait)) && left() > 0) {
  }
}

}  // namespace

/// Counts the fixes that the host is told of, and shows what the backend has derived.
class Session::Listener final : public TarvoDelegate {
 public:
  void tarvoDidReceiveNewLocations(Tarvo&, const std::vector<platform::CLLocation>& newLocations) override {
    delivered += newLocations.size();
    const std::lock_guard lock(mutex_);
    if (channel_ != nullptr) channel_->toldPositions(newLocations.size());
  }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory& history) override {
    for (const PastTripRecord& trip : history.pasttrips) {
      std::ostringstream text;
      text << "past trip " << trip.pasttrip_id.value_or(0);
      if (trip.start_time && trip.arrival_time)
        text << ": " << isoDate(*trip.start_time) << " to " << isoDate(*trip.arrival_time);
      tell(text.str());
    }
  }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip& trip) override {
    std::ostringstream text;
    text << "prediction " << trip.id << ": " << trip.getStartName() << " to " << trip.getArrivalName() << ", start "
         << trip.getStartTime().value_or("unknown") << ", probability " << trip.getProbability() << ", duration "
         << trip.getDuration();
    tell(text.str());
  }

  /// Tells this channel too, or none from here on.
  void tellThrough(Channel* channel) {
    const std::lock_guard lock(mutex_);
    channel_ = channel;
  }

  std::atomic<std::uint64_t> delivered = 0;

 private:
  void tell(const std::string& what) {
    note(what);
    const std::lock_guard lock(mutex_);
    if (channel_ != nullptr) channel_->told(what);
  }

  std::mutex mutex_;
  Channel* channel_ = nullptr;
};

Session::Session(const ReplayOptions& options, const Home& home, std::shared_ptr<platform::ManualClock> clock,
                 Watch* watch, const std::optional<Relaunch>& before)
    : options_(options),
      home_(home),
      clock_(std::move(clock)),
      watch_(watch),
      before_(before),
      listener_(std::make_shared<Listener>()) {}

Session::~Session() { listener_->tellThrough(nullptr); }

void Session::activate() {
  if (!engine().syncStatus().storeAvailable)
    throw Failure{kUnusable, "the store " + home_.store().string() + " cannot be used; nothing was collected"};
  claimStore();
  if (const auto client = home_.readKeys().clientID; client && *client != Tarvo::clientID())
    throw Failure{kUsage, "the client id '" + *client + "' cannot stand in a URL"};
  tarvo_.setDelegate(listener_);
  const bool registered = LocationManager::userUUID().has_value();
  if (uploads() && !home_.readKeys().complete()) {
    note(home_.propertyList().string() + " lacks TarvoApiKey or TarvoClientID; give --api-key and --client-id" +
         (registered ? "" : ", or no position can be sent"));
    identifiable_ = registered;
  }
  secret_ = options_.apiSecret.value_or(options_.sandbox ? kDefaultSecret : "");
  if (uploads() && secret_.empty() && !registered) {
    note("without --api-secret this new device cannot register, and no position can be sent");
    identifiable_ = false;
  }
  // Only now: known earlier, it would make the engine register before the key has been read.
  NetworkManager::setApiKeySecret(secret_);
  tarvo_.activate(options_.mode);
  if (options_.mode >= Tarvo::BACKEND_GEOPROFILE) {
    tarvo_.requestRouteMatch();
    tarvo_.requestPredictionUpdate();
  }
}

void Session::connect(const std::string& origin) {
  // Before its first fix the engine cannot take a push.
  channel_ = std::make_unique<Channel>(Channel::Host{origin, home_.readKeys().apiKey.value_or(""), secret_,
                                                     [tarvo = tarvo_, home = home_] { return statusText(tarvo, home); },
                                                     [listener = listener_] { return listener->delivered > 0; }},
                                       tarvo_);
  listener_->tellThrough(channel_.get());
}

/// Another process on this home may be about to end, as at the restart of a service.
void Session::claimStore() {
  const auto end = std::chrono::steady_clock::now() + kOtherProcess;
  while (const auto reason = engine().claimStore(kOneWait)) {
    if (interrupted()) throw Failure{kInterrupted, "interrupted; nothing was collected"};
    if (std::chrono::steady_clock::now() >= end)
      throw Failure{kUnusable, home_.directory().string() + ": " + *reason + "; nothing was collected"};
  }
}

bool Session::play(platform::GpxTrace trace, const std::vector<ScriptEvent>& script) {
  const std::size_t total = trace.fixes.size();
  if (before_)
    trace.fixes.erase(trace.fixes.begin(),
                      trace.fixes.begin() + static_cast<std::ptrdiff_t>(std::min(before_->fixes, total)));
  Progress progress(engine(), before_ ? before_->fixes : 0, total, !options_.log && !options_.verbose);
  platform::GpxReplay replay(std::move(trace), clock_);
  if (relaunches(replay, script, progress)) return true;
  if (interrupted()) {
    Tarvo::waitUntilIdle(kLastSeconds);
  } else {
    sendTheRest(progress);
  }
  progress.show();
  count(progress);
  return false;
}

/// Plays the trace with the events in between. Answers whether the process has to end for a relaunch.
bool Session::relaunches(platform::GpxReplay& replay, const std::vector<ScriptEvent>& script, Progress& progress) {
  const std::size_t earlierFixes = before_ ? before_->fixes : 0;
  const auto play = [&](std::optional<platform::Date> until) {
    replay.play(
        options_.speed.factor,
        [&](std::size_t fixes) {
          done_.fixes = earlierFixes + fixes;
          progress.update(done_.fixes);
          if (watch_ != nullptr) watch_->stored(engine());
          return !interrupted();
        },
        until);
    return !interrupted();
  };
  done_.fixes = earlierFixes;
  for (done_.events = before_ ? before_->events : 0; done_.events < script.size(); ++done_.events) {
    if (interrupted()) return false;
    const ScriptEvent& event = script[done_.events];
    if (event.at > clock_->now() && !play(event.at)) return false;
    if (watch_ != nullptr) watch_->show(event.text);
    if (!event.happens) {
      ++done_.events;
      count(progress);
      return true;
    }
    event.happens(tarvo_);
    // A process that ends at the same moment ends with this work under way.
    const bool endsHere = done_.events + 1 < script.size() && script[done_.events + 1].at <= clock_->now() &&
                          !script[done_.events + 1].happens;
    if (!endsHere) settle(kLongestWork);
    if (watch_ != nullptr) watch_->stored(engine());
  }
  play(std::nullopt);
  return false;
}

void Session::count(const Progress& progress) {
  done_.delivered = listener_->delivered + (before_ ? before_->delivered : 0);
  const LocationManager::SyncStatus sync = engine().syncStatus();
  done_.batches = sync.batchesPosted + (before_ ? before_->batches : 0);
  done_.unsaved = sync.unsaved + (before_ ? before_->unsaved : 0);
  done_.battery = static_cast<int>(UIDevice::current().batteryState());
  done_.batteryLevel = UIDevice::current().batteryLevel();
  done_.seconds = progress.seconds() + (before_ ? before_->seconds : 0);
}

/// The pipeline acts on events alone, and after the last fix none comes: so it is started here until all is
/// acknowledged, with the trip's clock running on where the channel is held.
void Session::sendTheRest(Progress& progress) {
  const double end = progress.seconds() + options_.deadlineSeconds;
  const auto secondsLeft = [&] { return end - progress.seconds(); };
  settle(secondsLeft());
  std::int64_t before = std::numeric_limits<std::int64_t>::max();
  Seconds pause = kFirstPause;
  while (uploads() && secondsLeft() > 0 && !interrupted()) {
    engine().sendDataInBatchToRemoteWebServer();
    settle(secondsLeft());
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

int Session::summarize(sandbox::Backend* sandbox) const {
  const LocationManager::SyncStatus sync = engine().syncStatus();
  const std::optional<std::string> user = LocationManager::userUUID();
  const std::int64_t left = sync.unsent + sync.awaiting;
  if (options_.json) {
    const nlohmann::ordered_json summary = {
        {"fixes", done_.fixes},
        {"delivered", done_.delivered},
        {"stored", sync.stored},
        {"unsent", sync.unsent},
        {"awaiting", sync.awaiting},
        {"acknowledged", sync.acknowledged},
        {"unsaved", done_.unsaved},
        {"batches", done_.batches},
        {"uuid", user ? nlohmann::ordered_json(*user) : nlohmann::ordered_json(nullptr)},
        {"seconds", done_.seconds},
    };
    std::cout << summary.dump() << std::endl;
  } else {
    std::cout << std::fixed << std::setprecision(1) << "fixes         " << done_.fixes << " in " << done_.seconds
              << " s\n"
              << "delivered     " << done_.delivered << "\n"
              << "stored        " << sync.stored << "\n"
              << "unsent        " << sync.unsent << "\n"
              << "awaiting      " << sync.awaiting << "\n"
              << "acknowledged  " << sync.acknowledged << "\n"
              << "unsaved       " << done_.unsaved << "\n"
              << "batches       " << done_.batches << "\n"
              << "user          " << user.value_or("not registered") << "\n";
    if (sandbox != nullptr) {
      const sandbox::Holdings held = sandbox->holdings();
      std::cout << "sandbox       " << held.positions << " positions, " << held.missing << " missing, " << held.repeats
                << " repeats\n";
    }
    std::cout << "home          " << home_.directory().string() << std::endl;
  }
  if (done_.unsaved > 0) {
    note(std::to_string(done_.unsaved) + " positions could not be saved in " + home_.store().string() +
         " and are lost");
    return kUnusable;
  }
  if (!sync.storeAvailable) {
    note("the store " + home_.store().string() + " was lost during the run");
    return kUnusable;
  }
  if (interrupted()) return kInterrupted;
  if (!uploads() || left == 0) return kDone;
  note(std::to_string(left) + " positions are not acknowledged; the next run on this home sends them");
  return kLeft;
}

}  // namespace tarvo::cli
