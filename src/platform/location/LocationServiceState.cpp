#include "platform/location/LocationServiceState.h"

#include <algorithm>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/MainQueue.h>
#include <tarvo/platform/UserDefaults.h>

#include "platform/foundation/FatalError.h"

namespace tarvo::platform {
namespace {

constexpr const char* statusKey = "platform.location.authorization";
constexpr const char* askedAlwaysKey = "platform.location.askedAlways";

CLAuthorizationStatus storedStatus() {
  const std::optional<Value> stored = UserDefaults::standard().object(statusKey);
  const std::optional<std::int64_t> number = stored ? stored->asInteger() : std::nullopt;
  if (!number || *number < 0 || *number > 4) return CLAuthorizationStatus::authorizedAlways;
  return CLAuthorizationStatus{*number};
}

}  // namespace

LocationService::State::State()
    : status_(storedStatus()), askedAlways_(UserDefaults::standard().boolean(askedAlwaysKey)) {}

void LocationService::State::add(const std::shared_ptr<LocationClient>& client) {
  MutexLock lock(mutex);
  std::erase_if(clients_, [](const auto& known) { return known.expired(); });
  clients_.push_back(client);
}

std::vector<std::shared_ptr<LocationClient>> LocationService::State::clients() const {
  std::vector<std::shared_ptr<LocationClient>> living;
  MutexLock lock(mutex);
  for (const auto& known : clients_)
    if (auto client = known.lock()) living.push_back(std::move(client));
  return living;
}

std::optional<CLLocation> LocationService::State::latest() const {
  MutexLock lock(mutex);
  return latest_;
}

Permission LocationService::State::permission() const {
  MutexLock lock(mutex);
  return {status_, capabilities};
}

std::vector<CLCircularRegion> LocationService::State::regions() const {
  MutexLock lock(mutex);
  return regions_.regions();
}

void LocationService::State::deliver(std::vector<CLLocation> fixes) {
  MutexLock lock(mutex);
  latest_ = fixes.back();
  deliveries_.async([this, batch = FixBatch{std::move(fixes), ++batches_}] { process(batch); });
}

void LocationService::State::process(const FixBatch& batch) {
  const Permission allowed = permission();
  if (!allowed.allowsFixes()) return;
  hand(batch, allowed);
  followDemand();  // a request may have been answered
}

void LocationService::State::hand(const FixBatch& batch, const Permission& allowed) {
  const Rules current = shared().rules();
  for (const auto& client : clients()) client->receive(batch, allowed, current);

  if (!allowed.always() || !allowed.capabilities.circularRegions) return;
  const Seconds now = Clock::current()->monotonic();
  std::vector<RegionCrossing> crossings;
  {
    MutexLock lock(mutex);
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

void LocationService::State::setStatus(CLAuthorizationStatus status) {
  bool asksForUpgrade = false;
  {
    MutexLock order(persisting_);
    {
      MutexLock lock(mutex);
      asksForUpgrade = status == CLAuthorizationStatus::authorizedWhenInUse && question_ &&
                       question_->asked != question_->wanted && question_->wanted == AuthorizationRequest::always;
      question_.reset();
      if (status_ != status) {
        status_ = status;
        const bool refuses = Permission{status, capabilities}.refuses();
        deliveries_.async([this, status, refuses] {
          for (const auto& client : clients()) {
            client->authorizationChanged(status);
            if (refuses) client->fail(clError::denied);
          }
          followDemand();
        });
      }
    }
    UserDefaults::standard().set(statusKey, static_cast<std::int64_t>(status));
  }
  if (asksForUpgrade) ask(AuthorizationRequest::always);
}

void LocationService::State::postStatus(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex);
  deliveries_.async([client = std::move(client), status = status_] { client->authorizationChanged(status); });
}

void LocationService::State::postDenialIfRefused(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex);
  if (!Permission{status_, capabilities}.refuses()) return;
  deliveries_.async([client = std::move(client)] { client->fail(clError::denied); });
}

void LocationService::State::postKnownFix(std::shared_ptr<LocationClient> client) {
  MutexLock lock(mutex);
  if (!latest_ || !capabilities.significantChange) return;
  deliveries_.async([this, client = std::move(client), fix = *latest_] {
    if (permission().always()) client->receiveKnown(fix);
  });
}

void LocationService::State::postFailure(std::int64_t code) {
  MutexLock lock(mutex);
  deliveries_.async([this, code] {
    for (const auto& client : clients()) client->fail(code);
  });
}

void LocationService::State::startRequest(const std::shared_ptr<LocationClient>& client) {
  MutexLock lock(mutex);
  if (!client->request(batches_, rules.requestTimeout, deliveries_)) return;
  if (Permission{status_, capabilities}.refuses()) deliveries_.async([client] { client->fail(clError::denied); });
}

void LocationService::State::startRegion(std::shared_ptr<LocationClient> client, const CLCircularRegion& region) {
  MutexLock lock(mutex);
  const bool added = capabilities.circularRegions && regions_.add(region, latest_, rules);
  deliveries_.async([client = std::move(client), region, added] {
    if (added)
      client->monitoringStarted(region);
    else
      client->monitoringFailed(region, clError::regionMonitoringFailure);
  });
}

void LocationService::State::stopRegion(const CLCircularRegion& region) {
  MutexLock lock(mutex);
  regions_.remove(region.identifier);
}

void LocationService::State::setSource(std::shared_ptr<LocationSource> source) {
  // The one replaced may be the last of its kind: it goes after the lock.
  MutexLock lock(mutex);
  source_.swap(source);
  deliveries_.async([this] { followDemand(); });
}

void LocationService::State::demandMayHaveChanged() {
  MutexLock lock(mutex);
  if (source_) deliveries_.async([this] { followDemand(); });
}

std::optional<double> LocationService::State::demand() const {
  if (!permission().allowsFixes()) return std::nullopt;
  std::optional<double> best;
  const auto need = [&](double metres) { best = best ? std::min(*best, metres) : metres; };
  for (const auto& client : clients())
    if (const auto metres = client->neededAccuracyMetres()) need(*metres);
  if (!regions().empty()) need(kCLLocationAccuracyHundredMeters);
  return best;
}

void LocationService::State::followDemand() {
  std::shared_ptr<LocationSource> wanted;
  {
    MutexLock lock(mutex);
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

void LocationService::State::setPrompt(std::function<void(AuthorizationRequest)> prompt) {
  MutexLock lock(mutex);
  prompt_.swap(prompt);
  question_.reset();
}

void LocationService::State::ask(AuthorizationRequest request) {
  bool upgrade = false;
  {
    MutexLock lock(mutex);
    if (question_) question_->wanted = request;
    upgrade = status_ == CLAuthorizationStatus::authorizedWhenInUse && request == AuthorizationRequest::always &&
              !askedAlways_;
    if (!prompt_ || question_ || (status_ != CLAuthorizationStatus::notDetermined && !upgrade)) return;
    question_ = Question{request, request};
    askedAlways_ = askedAlways_ || upgrade;
  }
  if (upgrade) UserDefaults::standard().set(askedAlwaysKey, true);
  MainQueue::main().async([this, request] { pose(request); });
}

void LocationService::State::pose(AuthorizationRequest request) {
  std::function<void(AuthorizationRequest)> current;
  {
    MutexLock lock(mutex);
    if (!question_ || question_->isPosed || question_->asked != request) return;
    question_->isPosed = true;
    current = prompt_;
  }
  callHost("the permission prompt", [&] { current(request); });
}

}  // namespace tarvo::platform
