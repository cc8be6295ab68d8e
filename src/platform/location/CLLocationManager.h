#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

class CLLocationManager;
class LocationClient;

inline constexpr double kCLLocationAccuracyBest = -1;
inline constexpr double kCLLocationAccuracyNearestTenMeters = 10;
inline constexpr double kCLLocationAccuracyHundredMeters = 100;
inline constexpr double kCLDistanceFilterNone = -1;
inline constexpr double CLLocationDistanceMax = 1.7976931348623157e308;
inline constexpr const char* kCLErrorDomain = "kCLErrorDomain";

/// Codes of kCLErrorDomain.
namespace clError {
inline constexpr std::int64_t locationUnknown = 0;
inline constexpr std::int64_t denied = 1;
inline constexpr std::int64_t regionMonitoringFailure = 5;
}  // namespace clError

/// A disc on the ground. Two regions are the same when their identifiers are.
struct CLCircularRegion {
  std::string identifier;
  CLLocationCoordinate2D center;
  double radius = 0;  ///< metres
  /// `CLCircularRegion (identifier:'X', center:<+48.13750000,+11.57550000>, radius:141.17m)`
  std::string description() const;
  bool operator==(const CLCircularRegion& other) const { return identifier == other.identifier; }
};

/// Told on the location service's delivery queue, one call at a time, with no lock held.
class CLLocationManagerDelegate {
 public:
  virtual ~CLLocationManagerDelegate() = default;
  virtual void didUpdateLocations(CLLocationManager&, const std::vector<CLLocation>& locations) = 0;
  virtual void didFailWithError(CLLocationManager&, const Error& error) = 0;
  virtual void didFinishDeferredUpdates(CLLocationManager&, const std::optional<Error>&) {}
  virtual void didChangeAuthorization(CLLocationManager&, CLAuthorizationStatus) {}
  virtual void didStartMonitoring(CLLocationManager&, const CLCircularRegion&) {}
  virtual void monitoringDidFail(CLLocationManager&, const std::optional<CLCircularRegion>&, const Error&) {}
  virtual void didEnterRegion(CLLocationManager&, const CLCircularRegion&) {}
  virtual void didExitRegion(CLLocationManager&, const CLCircularRegion&) {}
};

/// A client of the process's location service.
///
/// Threads: any; every call but `waitUntilTold` returns at once, also while a delivery runs. The delegate must outlive
/// the manager or be taken off first. Once `setDelegate` or the destructor has returned on the delivery queue, the old
/// delegate is not called any more; on another thread, a call that is under way still ends.
/// Errors: through the delegate, domain kCLErrorDomain.
class CLLocationManager {
 public:
  CLLocationManager();
  ~CLLocationManager();
  CLLocationManager(const CLLocationManager&) = delete;
  CLLocationManager& operator=(const CLLocationManager&) = delete;

  /// The first delegate is told the authorization status, soon and once; from then on each change of it.
  void setDelegate(CLLocationManagerDelegate* delegate);
  /// Waits until the delegates have been told what there was to tell before the call; on the delivery queue it returns
  /// at once. The caller must hold no lock that a delegate may wait for.
  void waitUntilTold();
  /// Metres; a wish that keeps no fix away. kCLLocationAccuracyBest: the best there is.
  void setDesiredAccuracy(double metres);
  /// Only fixes at least so many metres from the last one told are told; kCLDistanceFilterNone: all. Holds at once.
  void setDistanceFilter(double metres);
  double desiredAccuracy() const;
  double distanceFilter() const;
  /// Kept only: updates neither pause by themselves here nor stop in the background.
  void setPausesLocationUpdatesAutomatically(bool pauses);
  bool pausesLocationUpdatesAutomatically() const;
  void setAllowsBackgroundLocationUpdates(bool allows);
  bool allowsBackgroundLocationUpdates() const;

  /// The first fix after a start is always delivered. A repeated start changes nothing. Both end a one-shot request.
  void startUpdatingLocation();
  void stopUpdatingLocation();
  /// Tells one fix of the desired accuracy that comes after the call. When none has come in ten seconds of the
  /// installed clock, tells the latest less accurate one, or an error. A second request meanwhile changes nothing.
  void requestLocation();
  /// Tells the fix that is known, or the first to come, and then one after each 500 m, at most every five minutes.
  void startMonitoringSignificantLocationChanges();
  void stopMonitoringSignificantLocationChanges();
  /// Watches a region, in place of one of the same identifier. The 21st region fails, and one of a radius that is
  /// negative, not finite or above 1000 km; what fails changes nothing. The delegates of all managers are told when a
  /// border is crossed; to be inside at the start is no crossing. Regions end with the process.
  void startMonitoring(const CLCircularRegion& region);
  void stopMonitoring(const CLCircularRegion& region);
  /// The regions of the whole process, in the order in which they were added; a copy.
  std::vector<CLCircularRegion> monitoredRegions() const;

  /// The latest fix that the service knows, possibly old; absent before the first.
  std::optional<CLLocation> location() const;

  void requestWhenInUseAuthorization();
  void requestAlwaysAuthorization();
  static CLAuthorizationStatus authorizationStatus();
  static bool locationServicesEnabled();
  static bool significantLocationChangeMonitoringAvailable();
  static bool headingAvailable();
  static bool isRangingAvailable();
  static bool deferredLocationUpdatesAvailable();
  static bool isMonitoringAvailableForCircularRegions();

 private:
  std::shared_ptr<LocationClient> client_;
};

}  // namespace tarvo::platform
