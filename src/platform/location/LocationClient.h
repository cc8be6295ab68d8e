#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/Timer.h"
#include "platform/location/CLLocationManager.h"

namespace tarvo::platform {

class SerialQueue;

/// What host and user allow at the moment of a delivery.
struct Permission {
  CLAuthorizationStatus status = CLAuthorizationStatus::notDetermined;
  LocationService::Capabilities capabilities;

  bool always() const { return capabilities.locationServices && status == CLAuthorizationStatus::authorizedAlways; }
  bool allowsFixes() const {
    return always() || (capabilities.locationServices && status == CLAuthorizationStatus::authorizedWhenInUse);
  }
  /// Denied for good, as opposed to not asked yet.
  bool refuses() const { return !allowsFixes() && status != CLAuthorizationStatus::notDetermined; }
};

/// Fixes that were handed in together. `number` grows by one with each batch of the process.
struct FixBatch {
  std::vector<CLLocation> fixes;
  std::uint64_t number = 0;
};

/// One manager as the service sees it: what it wants, and what its delegate was told last.
///
/// Threads: any, but the operations that tell the delegate something are called on the delivery queue alone; they hold
/// no lock while they call it. Owned by its manager, and by a delivery for as long as that runs.
class LocationClient : public std::enable_shared_from_this<LocationClient> {
 public:
  explicit LocationClient(CLLocationManager& owner) : owner_(owner) {}

  /// Answers whether it is the client's first delegate.
  bool setDelegate(CLLocationManagerDelegate* delegate);
  /// The manager goes: nothing is told any more.
  void detach();

  struct Wishes {
    double desiredAccuracyMetres = kCLLocationAccuracyBest;
    double distanceFilterMetres = kCLDistanceFilterNone;
    bool pausesAutomatically = true;
    bool allowsBackground = false;
  };
  Wishes wishes() const;
  /// Absent while no service of this manager needs fixes.
  std::optional<double> neededAccuracyMetres() const;
  template <class Change>
  void changeWishes(Change change) {
    MutexLock lock(mutex_);
    change(wishes_);
  }

  /// Each start answers whether anything began with it.
  bool startUpdating();
  void stopUpdating();
  /// From now on waits for a fix of a batch whose number is above `after`. `queue` is where the time-out is told.
  bool request(std::uint64_t after, Seconds timeout, SerialQueue& queue);
  bool startSignificantChanges();
  void stopSignificantChanges();

  // On the delivery queue:

  /// Tells those fixes that the manager wants, in one call.
  void receive(const FixBatch& batch, const Permission& permission, const LocationService::Rules& rules);
  /// Tells the first fix of significant changes, unless a batch has brought one.
  void receiveKnown(const CLLocation& fix);
  /// Tells an error if the manager waits for fixes. A denial ends a request; another error is told to updates alone.
  void fail(std::int64_t code);
  /// Tells a status that the delegate has not been told yet.
  void authorizationChanged(CLAuthorizationStatus status);
  void monitoringStarted(const CLCircularRegion& region);
  void monitoringFailed(const CLCircularRegion& region, std::int64_t code);
  void crossed(const CLCircularRegion& region, bool entered);

 private:
  struct Request {
    std::uint64_t after;
    std::optional<CLLocation> latest;
    std::shared_ptr<Timer> timer;
  };
  struct SignificantChanges {
    std::optional<CLLocation> reference;
    Seconds told;  ///< when, in monotonic time
  };

  bool passesFilter(const CLLocation& fix) const REQUIRES(mutex_);
  bool passesSignificant(const CLLocation& fix, Seconds now, const LocationService::Rules& rules) REQUIRES(mutex_);
  /// The index of the fix that answers the request; `fixes.size()` when none does.
  std::size_t answerIndex(const FixBatch& batch) REQUIRES(mutex_);
  void requestTimedOut(std::uint64_t serial);

  template <class Call>
  void tell(Call call);

  CLLocationManager& owner_;  ///< valid while there is a delegate
  mutable Mutex mutex_;
  CLLocationManagerDelegate* delegate_ GUARDED_BY(mutex_) = nullptr;
  bool hadDelegate_ GUARDED_BY(mutex_) = false;
  Wishes wishes_ GUARDED_BY(mutex_);
  bool updating_ GUARDED_BY(mutex_) = false;
  std::optional<CLLocation> lastDelivered_ GUARDED_BY(mutex_);  ///< since the start
  std::optional<Request> request_ GUARDED_BY(mutex_);
  std::uint64_t requestSerial_ GUARDED_BY(mutex_) = 0;
  std::optional<SignificantChanges> significant_ GUARDED_BY(mutex_);
  std::optional<CLAuthorizationStatus> toldStatus_ GUARDED_BY(mutex_);
};

}  // namespace tarvo::platform
