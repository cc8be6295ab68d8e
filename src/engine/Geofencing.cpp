#include "engine/Geofencing.h"

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>

#include "engine/GeofenceRadii.h"
#include "log/Log.h"
#include "settings/Names.h"

namespace tarvo {

using platform::CLCircularRegion;
using platform::CLLocation;
using platform::Clock;
using platform::concat;

namespace {

/// Unique for each arming; the callbacks read nothing out of it.
std::string regionIdentifier(double number, const char* unit) {
  return concat(Clock::current()->now(), ":", number, unit);
}

}  // namespace

Geofencing::Geofencing(EngineState& state, platform::CLLocationManager& locationManager, ServiceControl& control)
    : state_(state), locationManager_(locationManager), control_(control) {}

std::optional<CLLocation> Geofencing::prepare() {
  state_.currentLocalisationMethod.set(std::string(method::kRegionsAndSignificantChange));
  if (!locationManager_.monitoredRegions().empty()) cancelGeofencing();
  return control_.getLastLocation();
}

std::vector<CLCircularRegion> Geofencing::speedRegions(const CLLocation& last, double speed) const {
  const double age = (Clock::current()->now() - last.timestamp).count();
  std::vector<CLCircularRegion> regions;
  for (const double lookAhead : kLookAheadSeconds)
    regions.push_back({regionIdentifier(lookAhead, "s"), last.coordinate,
                       ringRadius(last.horizontalAccuracy, lookAhead, age, speed)});
  return regions;
}

std::vector<CLCircularRegion> Geofencing::estimateRegions(const CLLocation& loc) const {
  std::vector<CLCircularRegion> regions;
  for (const double fraction : kAccuracyFractions) {
    const double radius = fallbackRadius(loc.horizontalAccuracy, fraction);
    regions.push_back({regionIdentifier(radius, "m"), loc.coordinate, radius});
  }
  return regions;
}

void Geofencing::armed(const CLLocation& center) {
  state_.geofencingStarted = true;
  state_.geofenceCenter.set(center);
}

void Geofencing::startGeofencing() {
  const auto last = prepare();
  if (!last) return;
  if (isUsableSpeed(last->speed)) {
    const double speed = assumedSpeed(last->speed);
    for (const auto& region : speedRegions(*last, speed)) {
      locationManager_.startMonitoring(region);
      Log::debug("LocationManager.startGeofencing [loc] [geofence] region:", region.description(),
                 " lastSpeed:", last->speed, " setSpeed:", speed);
    }
  } else {
    for (const auto& region : estimateRegions(*last)) {
      locationManager_.startMonitoring(region);
      Log::debug("LocationManager.startGeofencing [loc] [geofence] region:", region.description(), " lastSpeed:-1");
    }
  }
  armed(*last);
}

void Geofencing::startGeofencingWithSpeed(double estimatedSpeed) {
  const auto last = prepare();
  if (!last) return;
  for (const auto& region : speedRegions(*last, estimatedSpeed)) {
    locationManager_.startMonitoring(region);
    Log::debug("LocationManager:startGeofencingWithSpeed [loc] [geofence] region:", region.description(),
               " speed:", estimatedSpeed);
  }
  armed(*last);
}

void Geofencing::cancelGeofencing() {
  // `geofencingStarted` and `geofenceCenter` stay: intake goes on measuring speeds against the last centre.
  for (const auto& region : locationManager_.monitoredRegions()) locationManager_.stopMonitoring(region);
}

void Geofencing::didStartMonitoring(const CLCircularRegion& region) {
  state_.geofencingStartTime.set(Clock::current()->now());
  Log::debug("LocationManager:didStartMonitoringFor [loc] [geofence] ", region.description());
}

void Geofencing::monitoringDidFail(const platform::Error& error) {
  Log::debug("LocationManager:monitoringDidFailFor [loc] [geofence] ", error.localizedDescription);
}

void Geofencing::didEnterRegion(const CLCircularRegion& region) {
  Log::debug("LocationManager:didEnterRegion [loc] [geofence] ", region.description());
}

void Geofencing::didExitRegion(const CLCircularRegion& region) {
  Log::debug("LocationManager:didExitRegion [loc] [geofence] ", region.description());
  if (platform::UIDevice::current().platformLevel() >= 9) locationManager_.requestLocation();
  cancelGeofencing();
  state_.currentLocalisationMethod.set(std::string(method::kRegions));
}

}  // namespace tarvo
