#include <tarvo/platform/LocationService.h>

#include <cmath>
#include <string>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Text.h"
#include "platform/location/LocationServiceState.h"

namespace tarvo::platform {
namespace {

/// 9999-12-31 24:00:00 UTC, where years of four digits end.
constexpr double kEndOfYears = 253402300800;

/// Why a fix cannot be used; empty when it can.
std::string refusal(const CLLocation& fix) {
  const double time = secondsSince1970(fix.timestamp);
  const struct {
    const char* name;
    double value;
    bool inRange = true;
  } quantities[] = {
      {"latitude", fix.coordinate.latitude, std::abs(fix.coordinate.latitude) <= 90},
      {"longitude", fix.coordinate.longitude, std::abs(fix.coordinate.longitude) <= 180},
      {"altitude", fix.altitude},
      {"horizontal accuracy", fix.horizontalAccuracy},
      {"vertical accuracy", fix.verticalAccuracy},
      {"speed", fix.speed},
      {"course", fix.course},
      {"timestamp", time, time >= 0 && time < kEndOfYears},
  };
  for (const auto& [name, value, inRange] : quantities) {
    if (!std::isfinite(value)) return concat(name, " ", value, " is not finite");
    if (!inRange) return concat(name, " ", value, " is out of range");
  }
  return {};
}

}  // namespace

LocationService& LocationService::shared() {
  static LocationService* const service = new LocationService;
  return *service;
}

LocationService::LocationService() : state_(new State) {}

void LocationService::deliver(const std::vector<CLLocation>& fixes) {
  std::vector<CLLocation> usable;
  usable.reserve(fixes.size());
  for (const CLLocation& fix : fixes) {
    const std::string reason = refusal(fix);
    if (reason.empty())
      usable.push_back(fix);
    else
      NSLog(concat("location service: fix refused, ", reason));
  }
  if (!usable.empty()) state_->deliver(std::move(usable));
}

void LocationService::setSource(std::shared_ptr<LocationSource> source) { state_->setSource(std::move(source)); }

void LocationService::fail(std::int64_t code) { state_->postFailure(code); }

CLAuthorizationStatus LocationService::authorizationStatus() const { return state_->permission().status; }

void LocationService::setAuthorizationStatus(CLAuthorizationStatus status) { state_->setStatus(status); }

void LocationService::setPrompt(std::function<void(AuthorizationRequest)> prompt) {
  state_->setPrompt(std::move(prompt));
}

LocationService::Rules LocationService::rules() const {
  MutexLock lock(state_->mutex);
  return state_->rules;
}

void LocationService::setRules(Rules rules) {
  MutexLock lock(state_->mutex);
  state_->rules = rules;
}

LocationService::Capabilities LocationService::capabilities() const { return state_->permission().capabilities; }

void LocationService::setCapabilities(Capabilities capabilities) {
  MutexLock lock(state_->mutex);
  state_->capabilities = capabilities;
}

}  // namespace tarvo::platform
