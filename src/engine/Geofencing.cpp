#include "engine/Geofencing.h"

#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>

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

bool isUsableSpeed(double metresPerSecond) { return metresPerSecond != -1.0 && metresPerSecond != 0.0; }

double assumedSpeed(double metresPerSecond) {
  // Upper bound of the band, inclusive, and the speed assumed in it.
  static constexpr std::pair<double, double> kBands[] = {{1.388, 2.0}, {5.556, 6.0},     {13.889, 13.889},
                                                         {25.0, 25.0}, {36.111, 36.111}, {83.333, 83.333}};
  for (const auto& [bound, speed] : kBands)
    if (metresPerSecond <= bound) return speed;
  return 100.0;
}

double ringRadius(double horizontalAccuracy, double lookAhead, double age, double speed) {
  return horizontalAccuracy * 0.5 * 3.0 + (lookAhead + age) * speed;
}

double fallbackRadius(double horizontalAccuracy, double fraction) { return horizontalAccuracy * 0.5 * fraction; }

Geofencing::Geofencing(EngineState& state, platform::CLLocationManager& locationManager, Collection& collection)
    : state_(state), locationManager_(locationManager), collection_(collection) {}

std::optional<CLLocation> Geofencing::prepare() {
  state_.currentLocalisationMethod.set(std::string(method::kRegionsAndSignificantChange));
  if (!locationManager_.monitoredRegions().empty()) cancelGeofencing();
  return collection_.getLastLocation();
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
  if (platform::UIDevice::current().hasFeaturesOfLevel9()) locationManager_.requestLocation();
  cancelGeofencing();
  state_.currentLocalisationMethod.set(std::string(method::kRegions));
}

}  // namespace tarvo
