#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/CLLocation.h>

namespace tarvo::platform {

/// The numbers are the contract.
enum class CLAuthorizationStatus : std::int64_t {
  notDetermined = 0,
  restricted = 1,
  denied = 2,
  authorizedAlways = 3,
  authorizedWhenInUse = 4,
};

/// What a host asks its user; the answer comes back through `LocationService::setAuthorizationStatus`.
enum class AuthorizationRequest { whenInUse, always };

/// A receiver that the service switches on and off, so that it rests while nobody needs fixes. It hands its fixes to
/// `LocationService::deliver`.
///
/// Threads: both calls come on the service's delivery queue, in turn, starting with `start`; they return soon. Errors:
/// an exception that leaves one ends the process.
class TARVO_API LocationSource {
 public:
  virtual ~LocationSource() = default;
  /// Somebody needs fixes; called again when the best accuracy that anybody wants has changed (metres, -1: best).
  virtual void start(double desiredAccuracyMetres) = 0;
  virtual void stop() = 0;
};

/// The host's side of location services: fixes and permission go in here; the managers of the process share it.
///
/// Threads: any thread may call; no call waits for a delivery. Fixes and status changes reach the managers'
/// delegates one after the other on the service's own delivery queue, never inside the call.
/// The status starts as authorizedAlways (a Linux host that links the library has decided) and is kept in the
/// user defaults once set. Standard updates and one-shot requests need either authorized status, significant changes
/// and region crossings authorizedAlways.
/// Errors: none; what cannot be used is refused with a line in the system log.
class TARVO_API LocationService {
 public:
  static LocationService& shared();

  /// Takes fixes, oldest first. Each one that is not finite or out of range (degrees of the globe, a time in the years
  /// 1970 to 9999) is refused with a line in the system log; the others reach each manager that updates, through its
  /// distance filter.
  void deliver(const std::vector<CLLocation>& fixes);

  /// The receiver to switch; a host that pushes fixes by itself needs none. The one before is stopped if it runs.
  void setSource(std::shared_ptr<LocationSource> source);

  /// Reports a failure of the positioning itself (CLError locationUnknown 0, denied 1) to updating managers.
  void fail(std::int64_t code);

  CLAuthorizationStatus authorizationStatus() const;
  /// What the host's user has decided; also the answer to a question of the prompt.
  void setAuthorizationStatus(CLAuthorizationStatus status);

  /// Called (posted to the main queue, never inside a library call) when permission is asked for. One question at a
  /// time: until `setAuthorizationStatus` brings its answer (notDetermined: put off), or another prompt is set, further
  /// requests add none; a wish for "always" that came while "when in use" was asked for follows an answer of that kind.
  /// An exception that leaves it ends the process.
  void setPrompt(std::function<void(AuthorizationRequest)> prompt);

  /// What the device has. Without location services, updates fail as denied.
  struct Capabilities {
    bool locationServices = true;
    bool significantChange = true;
    bool heading = false;
    bool ranging = false;
    bool deferredUpdates = false;
    bool circularRegions = true;
  };
  Capabilities capabilities() const;
  void setCapabilities(Capabilities capabilities);

  /// When a one-shot request gives up, and what counts as a significant change and as a crossing. Spans are the
  /// installed clock's monotonic time: setting the wall clock neither shortens nor lengthens them.
  struct Rules {
    Seconds requestTimeout{10};
    double significantMetres = 500;
    Seconds significantInterval{300};
    std::size_t regionLimit = 20;
    /// A larger region fails: nothing that moves on the ground would leave it.
    double maximumRegionMonitoringMetres = 1'000'000;
    /// A crossing is told once the fixes lie this far past the border (at most half the radius) ...
    double regionBorderMetres = 20;
    /// ... and have stayed there this long.
    Seconds regionStay{20};
  };
  Rules rules() const;
  void setRules(Rules rules);

 private:
  LocationService() = default;
  ~LocationService() = delete;
};

}  // namespace tarvo::platform
