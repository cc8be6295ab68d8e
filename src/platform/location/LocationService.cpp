#include <tarvo/platform/LocationService.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <string>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/MainQueue.h>
#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/location/LocationServiceState.h"

namespace tarvo::platform {
namespace {

/// 9999-12-31 24:00:00 UTC, where years of four digits end.
constexpr double kEndOfYears = 253402300800;

/// Why a fix cannot be used, in words and as what counts such fixes; a null pointer when it can.
struct Refusal {
  std::string reason;
  std::atomic<std::uint64_t> FixCounters::*counter = nullptr;
};

Refusal refusal(const CLLocation& fix) {
  const double time = secondsSince1970(fix.timestamp);
  const struct {
    const char* name;
    double value;
    bool inRange = true;
    std::atomic<std::uint64_t> FixCounters::*outOfRange = nullptr;
  } quantities[] = {
      {"latitude", fix.coordinate.latitude, std::abs(fix.coordinate.latitude) <= 90, &FixCounters::offTheGlobe},
      {"longitude", fix.coordinate.longitude, std::abs(fix.coordinate.longitude) <= 180, &FixCounters::offTheGlobe},
      {"altitude", fix.altitude},
      {"horizontal accuracy", fix.horizontalAccuracy},
      {"vertical accuracy", fix.verticalAccuracy},
      {"speed", fix.speed},
      {"course", fix.course},
      {"timestamp", time, time >= 0 && time < kEndOfYears, &FixCounters::impossibleTime},
  };
  for (const auto& [name, value, inRange, outOfRange] : quantities) {
    if (!std::isfinite(value)) return {concat(name, " ", value, " is not finite"), &FixCounters::notFinite};
    if (!inRange) return {concat(name, " ", value, " is out of range"), outOfRange};
  }
  return {};
}

constexpr const char* kStatusKey = "platform.location.authorization";
constexpr const char* kAskedAlwaysKey = "platform.location.askedAlways";

CLAuthorizationStatus storedStatus() {
  const std::optional<Value> stored = UserDefaults::standard().object(kStatusKey);
  const std::optional<std::int64_t> number = stored ? stored->asInteger() : std::nullopt;
  if (!number || *number < 0 || *number > 4) return CLAuthorizationStatus::authorizedAlways;
  return CLAuthorizationStatus{*number};
}

LocationServiceState& state() { return LocationServiceState::shared(); }

/// The seconds since the latest fix where they are a silence.
double silence(double latest, double now) { return now - latest > 300 ? now - latest : 0; }
double monotonicNow() { return Clock::current()->monotonic().count(); }

}  // namespace

LocationService& LocationService::shared() {
  static auto* const service = new LocationService;
  return *service;
}

void LocationService::deliver(const std::vector<CLLocation>& fixes) {
  orOutOfMemory([&] {
    std::vector<CLLocation> usable;
    usable.reserve(fixes.size());
    FixCounters& counters = state().counters;
    counters.received += fixes.size();
    if (!fixes.empty()) {
      const double now = monotonicNow();
      counters.silence += silence(counters.latest.exchange(now), now);
    }
    for (const CLLocation& fix : fixes) {
      const auto [reason, counter] = refusal(fix);
      if (counter == nullptr) {
        usable.push_back(fix);
        continue;
      }
      ++(counters.*counter);
      NSLog(concat("location service: fix refused, ", reason));
    }
    if (!usable.empty()) state().deliver(std::move(usable));
  });
}

void LocationService::setSource(std::shared_ptr<LocationSource> source) { state().setSource(std::move(source)); }
void LocationService::fail(std::int64_t code) { state().postFailure(code); }

CLAuthorizationStatus LocationService::authorizationStatus() const { return state().permission().status; }
void LocationService::setAuthorizationStatus(CLAuthorizationStatus status) { state().setStatus(status); }

void LocationService::setPrompt(std::function<void(AuthorizationRequest)> prompt) {
  state().setPrompt(std::move(prompt));
}

LocationService::Capabilities LocationService::capabilities() const { return state().permission().capabilities; }
void LocationService::setCapabilities(Capabilities capabilities) { state().setCapabilities(capabilities); }

LocationService::Rules LocationService::rules() const { return state().rules(); }
void LocationService::setRules(Rules rules) { state().setRules(rules); }

LocationService::Statistics LocationService::statistics() const {
  const FixCounters& counters = state().counters;
  return {counters.received,           counters.notFinite,
          counters.offTheGlobe,        counters.impossibleTime,
          counters.filteredByDistance, Seconds(counters.silence + silence(counters.latest, monotonicNow()))};
}

LocationServiceState& LocationServiceState::shared() {
  static auto* const state = new LocationServiceState;
  return *state;
}

LocationServiceState::LocationServiceState()
    : status_(storedStatus()), askedAlways_(UserDefaults::standard().boolean(kAskedAlwaysKey)) {}

void LocationServiceState::add(const std::shared_ptr<LocationClient>& client) {
  MutexLock lock(mutex_);
  std::erase_if(clients_, [](const auto& known) { return known.expired(); });
  clients_.push_back(client);
}

std::vector<std::shared_ptr<LocationClient>> LocationServiceState::clients() const {
  std::vector<std::shared_ptr<LocationClient>> living;
  MutexLock lock(mutex_);
  for (const auto& known : clients_)
    if (auto client = known.lock()) living.push_back(std::move(client));
  return living;
}

std::optional<CLLocation> LocationServiceState::latest() const {
  MutexLock lock(mutex_);
  return latest_;
}

void LocationServiceState::forgetLatest() {
  MutexLock lock(mutex_);
  latest_.reset();
}

Permission LocationServiceState::permission() const {
  MutexLock lock(mutex_);
  return {status_, capabilities_};
}

std::vector<CLCircularRegion> LocationServiceState::regions() const {
  MutexLock lock(mutex_);
  return regions_.regions();
}

LocationService::Rules LocationServiceState::rules() const {
  MutexLock lock(mutex_);
  return rules_;
}

void LocationServiceState::setRules(LocationService::Rules rules) {
  MutexLock lock(mutex_);
  rules_ = rules;
}

void LocationServiceState::setCapabilities(LocationService::Capabilities capabilities) {
  MutexLock lock(mutex_);
  capabilities_ = capabilities;
}

void LocationServiceState::deliver(std::vector<CLLocation> fixes) {
  MutexLock lock(mutex_);
  latest_ = fixes.back();
  deliveries_.async([this, batch = FixBatch{std::move(fixes), ++batches_}] { process(batch); });
}

void LocationServiceState::process(const FixBatch& batch) {
  const Permission allowed = permission();
  if (!allowed.allowsFixes()) return;
  hand(batch, allowed);
  followDemand();  // a request may have been answered
}

void LocationServiceState::hand(const FixBatch& batch, const Permission& allowed) {
  const LocationService::Rules current = rules();
  for (const auto& client : clients()) client->receive(batch, allowed, current);

  if (!allowed.always() || !allowed.capabilities.circularRegions) return;
  const Seconds now = Clock::current()->monotonic();
  std::vector<RegionCrossing> crossings;
  {
    MutexLock lock(mutex_);
    for (const CLLocation& fix : batch.fixes)
      for (RegionCrossing& crossing : regions_.evaluate(fix, now, current)) crossings.push_back(std::move(crossing));
  }
  for (const RegionCrossing& crossing : crossings) {
    // A delegate that was told of one crossing may have stopped watching the others.
    const auto watched = regions();
    if (std::find(watched.begin(), watched.end(), crossing.region) == watched.end()) continue;
    for (const auto& client : clients()) client->crossed(crossing.region, crossing.entered);
  }
}

void LocationServiceState::setStatus(CLAuthorizationStatus status) {
  bool asksForUpgrade = false;
  {
    MutexLock order(persisting_);
    {
      MutexLock lock(mutex_);
      asksForUpgrade = status == CLAuthorizationStatus::authorizedWhenInUse && question_ &&
                       question_->asked != question_->wanted && question_->wanted == AuthorizationRequest::always;
      question_.reset();
      if (status_ != status) {
        status_ = status;
        const bool refuses = Permission{status, capabilities_}.refuses();
        deliveries_.async([this, status, refuses] {
          for (const auto& client : clients()) {
            client->authorizationChanged(status);
            if (refuses) client->fail(clError::denied);
          }
          followDemand();
        });
      }
    }
    UserDefaults::standard().set(kStatusKey, static_cast<std::int64_t>(status));
  }
  if (asksForUpgrade) ask(AuthorizationRequest::always);
}

void LocationServiceState::postStatus(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex_);
  deliveries_.async([client = std::move(client), status = status_] { client->authorizationChanged(status); });
}

void LocationServiceState::postDenialIfRefused(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex_);
  if (!Permission{status_, capabilities_}.refuses()) return;
  deliveries_.async([client = std::move(client)] { client->fail(clError::denied); });
}

void LocationServiceState::postKnownFix(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex_);
  if (!latest_ || !capabilities_.significantChange) return;
  deliveries_.async([this, client = std::move(client), fix = *latest_] {
    if (permission().always()) client->receiveKnown(fix);
  });
}

void LocationServiceState::postFailure(std::int64_t code) {
  MutexLock lock(mutex_);
  deliveries_.async([this, code] {
    for (const auto& client : clients()) client->fail(code);
  });
}

void LocationServiceState::startRequest(const std::shared_ptr<LocationClient>& client) {
  MutexLock lock(mutex_);
  if (!client->request(batches_, rules_.requestTimeout, deliveries_)) return;
  if (Permission{status_, capabilities_}.refuses()) deliveries_.async([client] { client->fail(clError::denied); });
}

void LocationServiceState::startRegion(std::shared_ptr<LocationClient> client, const CLCircularRegion& region) {
  MutexLock lock(mutex_);
  const bool added = capabilities_.circularRegions && regions_.add(region, latest_, rules_);
  deliveries_.async([client = std::move(client), region, added] {
    if (added)
      client->monitoringStarted(region);
    else
      client->monitoringFailed(region, clError::regionMonitoringFailure);
  });
}

void LocationServiceState::stopRegion(const CLCircularRegion& region) {
  MutexLock lock(mutex_);
  regions_.remove(region.identifier);
}

void LocationServiceState::setSource(std::shared_ptr<LocationSource> source) {
  // The one replaced may be the last of its kind: it goes after the lock.
  MutexLock lock(mutex_);
  source_.swap(source);
  deliveries_.async([this] { followDemand(); });
}

void LocationServiceState::demandMayHaveChanged() {
  MutexLock lock(mutex_);
  if (source_) deliveries_.async([this] { followDemand(); });
}

std::optional<double> LocationServiceState::demand() const {
  if (!permission().allowsFixes()) return std::nullopt;
  std::optional<double> best;
  const auto need = [&](double metres) { best = best ? std::min(*best, metres) : metres; };
  for (const auto& client : clients())
    if (const auto metres = client->neededAccuracyMetres()) need(*metres);
  if (!regions().empty()) need(kCLLocationAccuracyHundredMeters);
  return best;
}

void LocationServiceState::followDemand() {
  std::shared_ptr<LocationSource> wanted;
  {
    MutexLock lock(mutex_);
    wanted = source_;
  }
  if (!wanted && !running_) return;
  const std::optional<double> accuracy = wanted ? demand() : std::nullopt;
  if (running_ && (running_ != wanted || !accuracy)) {
    callHost("LocationSource::stop", [&] { running_->stop(); });
    running_ = nullptr;
  }
  if (wanted && accuracy && (!running_ || accuracy != runningAccuracy_)) {
    running_ = wanted;
    callHost("LocationSource::start", [&] { running_->start(*accuracy); });
  }
  runningAccuracy_ = accuracy;
}

void LocationServiceState::setPrompt(std::function<void(AuthorizationRequest)> prompt) {
  MutexLock lock(mutex_);
  prompt_.swap(prompt);
  question_.reset();
}

void LocationServiceState::ask(AuthorizationRequest request) {
  bool upgrade = false;
  {
    MutexLock lock(mutex_);
    if (question_) question_->wanted = request;
    upgrade = status_ == CLAuthorizationStatus::authorizedWhenInUse && request == AuthorizationRequest::always &&
              !askedAlways_;
    if (!prompt_ || question_ || (status_ != CLAuthorizationStatus::notDetermined && !upgrade)) return;
    question_ = Question{request, request};
    askedAlways_ = askedAlways_ || upgrade;
  }
  if (upgrade) UserDefaults::standard().set(kAskedAlwaysKey, true);
  MainQueue::main().async([this, request] { pose(request); });
}

void LocationServiceState::pose(AuthorizationRequest request) {
  std::function<void(AuthorizationRequest)> current;
  {
    MutexLock lock(mutex_);
    if (!question_ || question_->isPosed || question_->asked != request) return;
    question_->isPosed = true;
    current = prompt_;
  }
  callHost("the permission prompt", [&] { current(request); });
}

}  // namespace tarvo::platform
