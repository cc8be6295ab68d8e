#pragma once

#include <cstdint>
#include <functional>
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

/// The host's side of location services: fixes and permission go in here; the managers of the process share it.
///
/// Threads: any thread may call; no call waits for a delivery. Fixes and status changes reach the managers'
/// delegates one after the other on the service's own delivery queue, never inside the call.
/// The status starts as authorizedAlways (a Linux host that links the library has decided) and is kept in the
/// user defaults once set.
class TARVO_API LocationService {
 public:
  static LocationService& shared();

  /// Takes fixes, oldest first. Each one that is not finite or out of range is refused with a line in the system
  /// log; the others pass the distance filter of each manager that updates.
  void deliver(const std::vector<CLLocation>& fixes);

  /// Reports a failure of the positioning itself (CLError locationUnknown 0, denied 1) to updating managers.
  void fail(std::int64_t code);

  CLAuthorizationStatus authorizationStatus() const;
  void setAuthorizationStatus(CLAuthorizationStatus status);

  /// Called (posted to the main queue, never inside a library call) when permission is asked for.
  void setPrompt(std::function<void(AuthorizationRequest)> prompt);

  /// What the device has: all true by default except heading, ranging and deferred updates.
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

  struct State;
  State& state() { return *state_; }

 private:
  LocationService();
  ~LocationService() = delete;
  State* state_;
};

}  // namespace tarvo::platform
