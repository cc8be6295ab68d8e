#include "platform/location/CLLocationManager.h"

#include "platform/foundation/Text.h"
#include "platform/location/Geodesy.h"
#include "platform/location/LocationClient.h"
#include "platform/location/LocationServiceState.h"

namespace tarvo::platform {
namespace {

LocationServiceState& service() { return LocationServiceState::shared(); }

}  // namespace

std::string CLCircularRegion::description() const {
  return concat("CLCircularRegion (identifier:'", identifier, "', center:<", center, ">, radius:", Fixed{radius, 2},
                "m)");
}

CLLocationManager::CLLocationManager() : client_(std::make_shared<LocationClient>(*this)) { service().add(client_); }

CLLocationManager::~CLLocationManager() {
  client_->detach();
  service().demandMayHaveChanged();
}

void CLLocationManager::setDelegate(CLLocationManagerDelegate* delegate) {
  if (client_->setDelegate(delegate)) service().postStatus(client_);
}

void CLLocationManager::waitUntilTold() { service().waitForDeliveries(); }

void CLLocationManager::setDesiredAccuracy(double metres) {
  client_->changeWishes([=](auto& wishes) { wishes.desiredAccuracyMetres = metres; });
  service().demandMayHaveChanged();
}

void CLLocationManager::setDistanceFilter(double metres) {
  client_->changeWishes([=](auto& wishes) { wishes.distanceFilterMetres = metres; });
}

double CLLocationManager::desiredAccuracy() const { return client_->wishes().desiredAccuracyMetres; }
double CLLocationManager::distanceFilter() const { return client_->wishes().distanceFilterMetres; }

void CLLocationManager::setPausesLocationUpdatesAutomatically(bool pauses) {
  client_->changeWishes([=](auto& wishes) { wishes.pausesAutomatically = pauses; });
}

bool CLLocationManager::pausesLocationUpdatesAutomatically() const { return client_->wishes().pausesAutomatically; }

void CLLocationManager::setAllowsBackgroundLocationUpdates(bool allows) {
  client_->changeWishes([=](auto& wishes) { wishes.allowsBackground = allows; });
}

bool CLLocationManager::allowsBackgroundLocationUpdates() const { return client_->wishes().allowsBackground; }

void CLLocationManager::startUpdatingLocation() {
  if (client_->startUpdating()) service().postDenialIfRefused(client_);
  service().demandMayHaveChanged();
}

void CLLocationManager::stopUpdatingLocation() {
  client_->stopUpdating();
  service().demandMayHaveChanged();
}

void CLLocationManager::requestLocation() {
  service().startRequest(client_);
  service().demandMayHaveChanged();
}

void CLLocationManager::startMonitoringSignificantLocationChanges() {
  if (!client_->startSignificantChanges()) return;
  service().postDenialIfRefused(client_);
  service().postKnownFix(client_);
  service().demandMayHaveChanged();
}

void CLLocationManager::stopMonitoringSignificantLocationChanges() {
  client_->stopSignificantChanges();
  service().demandMayHaveChanged();
}

void CLLocationManager::startMonitoring(const CLCircularRegion& region) {
  service().startRegion(client_, region);
  service().demandMayHaveChanged();
}

void CLLocationManager::stopMonitoring(const CLCircularRegion& region) {
  service().stopRegion(region);
  service().demandMayHaveChanged();
}
std::vector<CLCircularRegion> CLLocationManager::monitoredRegions() const { return service().regions(); }

std::optional<CLLocation> CLLocationManager::location() const { return service().latest(); }

void CLLocationManager::requestWhenInUseAuthorization() { service().ask(AuthorizationRequest::whenInUse); }
void CLLocationManager::requestAlwaysAuthorization() { service().ask(AuthorizationRequest::always); }

CLAuthorizationStatus CLLocationManager::authorizationStatus() { return service().permission().status; }
bool CLLocationManager::locationServicesEnabled() { return service().permission().capabilities.locationServices; }

bool CLLocationManager::significantLocationChangeMonitoringAvailable() {
  return service().permission().capabilities.significantChange;
}

bool CLLocationManager::headingAvailable() { return service().permission().capabilities.heading; }
bool CLLocationManager::isRangingAvailable() { return service().permission().capabilities.ranging; }

bool CLLocationManager::deferredLocationUpdatesAvailable() {
  return service().permission().capabilities.deferredUpdates;
}

bool CLLocationManager::isMonitoringAvailableForCircularRegions() {
  return service().permission().capabilities.circularRegions;
}

}  // namespace tarvo::platform
