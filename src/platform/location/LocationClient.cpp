#include "platform/location/LocationClient.h"

#include <algorithm>

#include <tarvo/platform/Clock.h>

#include "platform/foundation/SerialQueue.h"
#include "platform/foundation/Text.h"
#include "platform/location/LocationServiceState.h"

namespace tarvo::platform {
namespace {

Error locationError(std::int64_t code) {
  return {kCLErrorDomain,
          code,
          concat("The operation couldn’t be completed. (", kCLErrorDomain, " error ", code, ".)"),
          {}};
}

}  // namespace

bool LocationClient::setDelegate(CLLocationManagerDelegate* delegate) {
  MutexLock lock(mutex_);
  delegate_ = delegate;
  const bool first = delegate != nullptr && !hadDelegate_;
  hadDelegate_ = hadDelegate_ || first;
  return first;
}

void LocationClient::detach() {
  MutexLock lock(mutex_);
  delegate_ = nullptr;
  request_.reset();
}

LocationClient::Wishes LocationClient::wishes() const {
  MutexLock lock(mutex_);
  return wishes_;
}

std::optional<double> LocationClient::neededAccuracyMetres() const {
  MutexLock lock(mutex_);
  if (updating_ || request_) return wishes_.desiredAccuracyMetres;
  if (significant_) return kCLLocationAccuracyHundredMeters;
  return std::nullopt;
}

bool LocationClient::startUpdating() {
  MutexLock lock(mutex_);
  request_.reset();
  if (updating_) return false;
  updating_ = true;
  lastDelivered_.reset();
  return true;
}

void LocationClient::stopUpdating() {
  MutexLock lock(mutex_);
  request_.reset();
  updating_ = false;
}

bool LocationClient::request(std::uint64_t after, Seconds timeout, SerialQueue& queue) {
  MutexLock lock(mutex_);
  if (request_) return false;
  const std::uint64_t serial = ++requestSerial_;
  request_ = Request{after, std::nullopt, nullptr};
  request_->timer = Timer::after(timeout, queue, [weak = weak_from_this(), serial] {
    if (const auto self = weak.lock()) self->requestTimedOut(serial);
  });
  return true;
}

bool LocationClient::startSignificantChanges() {
  MutexLock lock(mutex_);
  if (significant_) return false;
  significant_.emplace();
  return true;
}

void LocationClient::stopSignificantChanges() {
  MutexLock lock(mutex_);
  significant_.reset();
}

bool LocationClient::passesFilter(const CLLocation& fix) const {
  if (!updating_) return false;
  const double filter = wishes_.distanceFilterMetres;
  return !lastDelivered_ || !(filter > 0) || fix.distanceFrom(*lastDelivered_) >= filter;
}

bool LocationClient::passesSignificant(const CLLocation& fix, Seconds now, const LocationService::Rules& rules) {
  if (!significant_ || fix.horizontalAccuracy < 0) return false;
  SignificantChanges& changes = *significant_;
  if (changes.reference && (now - changes.told < rules.significantInterval ||
                            fix.distanceFrom(*changes.reference) < rules.significantMetres))
    return false;
  changes.reference = fix;
  changes.told = now;
  return true;
}

std::size_t LocationClient::answerIndex(const FixBatch& batch) {
  const std::size_t none = batch.fixes.size();
  if (!request_ || batch.number <= request_->after) return none;
  const double wanted = wishes_.desiredAccuracyMetres;
  for (std::size_t index = none; index-- > 0;) {
    const CLLocation& fix = batch.fixes[index];
    if (fix.horizontalAccuracy < 0) continue;
    // "Best" names no figure: every valid fix is the best there is.
    if (!(wanted > 0) || fix.horizontalAccuracy <= wanted) return index;
  }
  const auto valid = std::find_if(batch.fixes.rbegin(), batch.fixes.rend(),
                                  [](const CLLocation& fix) { return fix.horizontalAccuracy >= 0; });
  if (valid != batch.fixes.rend()) request_->latest = *valid;
  return none;
}

void LocationClient::receive(const FixBatch& batch, const Permission& permission, const LocationService::Rules& rules) {
  std::vector<CLLocation> passed;
  {
    const Seconds now = Clock::current()->monotonic();
    MutexLock lock(mutex_);
    const std::size_t answer = answerIndex(batch);
    if (answer < batch.fixes.size()) request_.reset();
    const bool significant = permission.always() && permission.capabilities.significantChange;
    for (std::size_t index = 0; index < batch.fixes.size(); ++index) {
      const CLLocation& fix = batch.fixes[index];
      const bool changed = significant && passesSignificant(fix, now, rules);
      if (!changed && index != answer && !passesFilter(fix)) {
        if (updating_) ++LocationServiceState::shared().counters.filteredByDistance;
        continue;
      }
      lastDelivered_ = fix;
      passed.push_back(fix);
    }
  }
  if (!passed.empty()) tell([&](auto& delegate, auto& owner) { delegate.didUpdateLocations(owner, passed); });
}

void LocationClient::receiveKnown(const CLLocation& fix) {
  {
    MutexLock lock(mutex_);
    if (!significant_ || significant_->reference) return;
    significant_->reference = fix;
    significant_->told = Clock::current()->monotonic();
  }
  tell([&](auto& delegate, auto& owner) { delegate.didUpdateLocations(owner, {fix}); });
}

void LocationClient::requestTimedOut(std::uint64_t serial) {
  std::optional<CLLocation> latest;
  {
    MutexLock lock(mutex_);
    if (!request_ || requestSerial_ != serial) return;
    latest = request_->latest;
    request_.reset();
  }
  LocationServiceState::shared().demandMayHaveChanged();
  tell([&](auto& delegate, auto& owner) {
    if (latest)
      delegate.didUpdateLocations(owner, {*latest});
    else
      delegate.didFailWithError(owner, locationError(clError::locationUnknown));
  });
}

void LocationClient::fail(std::int64_t code) {
  {
    MutexLock lock(mutex_);
    const bool denied = code == clError::denied;
    if (!updating_ && !(denied && (request_ || significant_))) return;
    if (denied) request_.reset();
  }
  tell([&](auto& delegate, auto& owner) { delegate.didFailWithError(owner, locationError(code)); });
}

void LocationClient::authorizationChanged(CLAuthorizationStatus status) {
  {
    MutexLock lock(mutex_);
    if (delegate_ == nullptr || toldStatus_ == status) return;
    toldStatus_ = status;
  }
  tell([&](auto& delegate, auto& owner) { delegate.didChangeAuthorization(owner, status); });
}

void LocationClient::monitoringStarted(const CLCircularRegion& region) {
  tell([&](auto& delegate, auto& owner) { delegate.didStartMonitoring(owner, region); });
}

void LocationClient::monitoringFailed(const CLCircularRegion& region, std::int64_t code) {
  tell([&](auto& delegate, auto& owner) { delegate.monitoringDidFail(owner, region, locationError(code)); });
}

void LocationClient::crossed(const CLCircularRegion& region, bool entered) {
  tell([&](auto& delegate, auto& owner) {
    if (entered)
      delegate.didEnterRegion(owner, region);
    else
      delegate.didExitRegion(owner, region);
  });
}

template <class Call>
void LocationClient::tell(Call call) {
  CLLocationManagerDelegate* delegate = nullptr;
  {
    MutexLock lock(mutex_);
    delegate = delegate_;
  }
  if (delegate != nullptr) call(*delegate, owner_);
}

}  // namespace tarvo::platform
