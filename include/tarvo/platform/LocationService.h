/// @file
/// Where a host hands in fixes, and what its user allows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/CLLocation.h>

namespace tarvo::platform {

/// What the user allows. The numbers are stored, so they never change.
enum class CLAuthorizationStatus : std::int64_t {
  notDetermined = 0,        ///< the user has not been asked
  restricted = 1,           ///< the user may not decide
  denied = 2,               ///< the user has said no
  authorizedAlways = 3,     ///< in the background too
  authorizedWhenInUse = 4,  ///< while the application is in use
};

/// What a host asks its user for: fixes while the application is in use, or always. The answer goes to
/// `LocationService::setAuthorizationStatus`.
enum class AuthorizationRequest {
  whenInUse,  ///< while the application is in use
  always      ///< in the background too
};

/// A receiver that the service switches on and off, so that it rests while nobody needs fixes. A host derives from this
/// class; the receiver hands its fixes to `LocationService::deliver`.
///
/// Threads: both calls come on the service's delivery queue and must return soon. Errors: an exception that leaves one
/// of them ends the process.
class TARVO_API LocationSource {
 public:
  virtual ~LocationSource() = default;
  /// Somebody needs fixes of that accuracy; -1 stands for the best there is. Called again, without a stop in between,
  /// when the accuracy that is needed has changed.
  virtual void start(double desiredAccuracyMetres) = 0;
  /// Nobody needs fixes any more. Called only after a start.
  virtual void stop() = 0;
};

/// Where a host hands in fixes and what its user allows. The SDK draws on it; there is one for the process.
///
/// The permission is authorizedAlways at first, since a Linux host that links the library has decided; once set it is
/// kept in the user defaults. Updates and one-shot requests need authorizedAlways or authorizedWhenInUse, significant
/// changes and region crossings need authorizedAlways.
///
/// Threads: any; no call waits for a delivery. What is handed in reaches the SDK on the service's own delivery queue,
/// one thing after the other, never inside the call.
/// Errors: none; what cannot be used is refused with a line in the system log.
class TARVO_API LocationService {
 public:
  /// The one of the process.
  static LocationService& shared();

  /// Takes fixes, oldest first. A fix with a value that is not finite, a coordinate that is not on the globe or a time
  /// outside the years 1970 to 9999 is refused, with a line in the system log. The others reach whatever the SDK has
  /// asked the service for; not each of them becomes a position.
  void deliver(const std::vector<CLLocation>& fixes);

  /// Sets the receiver to switch on and off, or none. A host whose receiver always runs needs none. The one before is
  /// stopped if it runs.
  void setSource(std::shared_ptr<LocationSource> source);

  /// Reports that positioning itself fails. `code`: 0 where the place cannot be found for now, 1 where the receiver
  /// may not be used, which also ends a one-shot request.
  void fail(std::int64_t code);

  /// What the user has decided, as it was told last, also in an earlier process.
  CLAuthorizationStatus authorizationStatus() const;
  /// Tells what the host's user has decided, unasked or when the prompt asked.
  void setAuthorizationStatus(CLAuthorizationStatus status);

  /// Sets what asks the user for a permission. It is called on the main queue, never inside a call to the library, and
  /// only while the answer is open: the status is notDetermined, or authorizedWhenInUse and "always" has never been
  /// asked for.
  ///
  /// A question stays open until `setAuthorizationStatus` answers it (notDetermined puts it off) or another prompt is
  /// set; there is no second one meanwhile. If the last request made meanwhile was for "always" and the answer is
  /// authorizedWhenInUse, the prompt is called for "always" next. An exception that leaves the prompt ends the process.
  void setPrompt(std::function<void(AuthorizationRequest)> prompt);

  /// What the device has. Without location services no fix is passed on, and updates fail as denied.
  struct Capabilities {
    bool locationServices = true;   ///< fixes at all
    bool significantChange = true;  ///< telling of significant changes
    bool heading = false;           ///< a compass
    bool ranging = false;           ///< distances to beacons
    bool deferredUpdates = false;   ///< fixes that wait in the receiver
    bool circularRegions = true;    ///< telling of borders that are crossed
  };
  /**@{*/
  /// What the device has, as it was told last.
  Capabilities capabilities() const;
  void setCapabilities(Capabilities capabilities);
  /**@}*/

  /// When a one-shot request gives up, and what counts as a significant change and as a crossing. Spans are measured by
  /// the installed clock's monotonic time, so that setting the wall clock does not change them.
  struct Rules {
    /// Then the latest fix that has come answers the request, however inaccurate, or an error without one.
    Seconds requestTimeout{10};
    /// A significant change lies so far from the one before, and comes so much later.
    double significantMetres = 500;
    Seconds significantInterval{300};  ///< see `significantMetres`
    /// Regions of the whole process; a further one fails, and one of a larger radius.
    std::size_t regionLimit = 20;
    double maximumRegionMonitoringMetres = 1'000'000;  ///< the largest radius
    /// A border is crossed once fixes have lain so far past it (half the radius if that is less) for so long.
    double regionBorderMetres = 20;
    Seconds regionStay{20};  ///< see `regionBorderMetres`
  };
  /**@{*/
  /// The rules in use; a change holds from the next fix or request on.
  Rules rules() const;
  void setRules(Rules rules);
  /**@}*/

  /// What became of the fixes that were handed in to this process. Who asks while fixes come may see a moment in which
  /// one is counted in one number only.
  struct Statistics {
    std::uint64_t received = 0;            ///< handed in, the refused ones included
    std::uint64_t notFinite = 0;           ///< refused: a value that is not finite
    std::uint64_t offTheGlobe = 0;         ///< refused: beyond 90 degrees north or south, or 180 east or west
    std::uint64_t impossibleTime = 0;      ///< refused: outside the years 1970 to 9999
    std::uint64_t filteredByDistance = 0;  ///< too near the one before, for standard updates
    Seconds silence{0};                    ///< pauses after a fix of more than five minutes, with the one that lasts
    bool operator==(const Statistics&) const = default;
  };
  /// The counts so far.
  Statistics statistics() const;

 private:
  LocationService() = default;
  ~LocationService() = delete;
};

}  // namespace tarvo::platform
