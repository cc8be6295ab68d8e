#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

#include "engine/EngineState.h"
#include "engine/PositionWriter.h"
#include "platform/location/CLLocationManager.h"
#include "store/ObjectStore.h"

namespace tarvo {

/// Switches the location service on and off, keeps the permission that the mode needs, and knows the last position.
///
/// Threads: `start`, authorization and `getLastLocation` on the caller's; `stop`, `stopLocationUpdate` and
/// `requestLocationUpdate` run on `serialQueue` and are waited for, so never call them from a block on it.
/// Errors: never throws.
class ServiceControl {
 public:
  ServiceControl(EngineState& state, EngineQueues& queues, platform::CLLocationManager& locationManager,
                 ObjectStore& store, PositionWriter& writer, NetworkManager& networkManager);

  /// In modes from 0; takes up transfers too.
  void start();
  /// In modes from 8, goes on with the uploads that an earlier process has left. A second call does nothing.
  void takeUpTransfers();
  void stop();
  void stopLocationUpdate();
  void requestLocationUpdate();

  platform::CLAuthorizationStatus checkAndRequestLocationAuthorization(std::int64_t mode);
  void requestAgainLocationAuthorization();
  std::optional<platform::CLLocation> getLastLocation();

  /// Stores the last known position again, if there is one, to mark the moment of an event.
  void recordEvent(std::string_view serviceaction);

  /// The permission changed; queues its work on `serialQueue`.
  void didChangeAuthorization(platform::CLAuthorizationStatus status);

 private:
  void setStopReceiveLocationUpdate(bool stopped, std::string_view message);

  EngineState& state_;
  EngineQueues& queues_;
  platform::CLLocationManager& locationManager_;
  ObjectStore& store_;
  PositionWriter& writer_;
  NetworkManager& networkManager_;
};

}  // namespace tarvo
