#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

#include "engine/EngineState.h"
#include "platform/location/CLLocationManager.h"
#include "store/Ledger.h"
#include "store/ObjectStore.h"

namespace tarvo {

/// Starts and stops the collection of positions, keeps the permission that the mode needs, stores fixes and events, and
/// knows the last position.
///
/// Threads: `start`, authorization and `getLastLocation` on the caller's; `stop`, `stopLocationUpdate` and
/// `requestLocationUpdate` run on `serialQueue` and are waited for, so never call them from a block on it. Storing
/// returns at once; the writing happens on `serialQueueLocation` inside blocks of the store's context.
/// Errors: never throws; a position that cannot be stored is logged and the rest of its batch goes on.
class Collection {
 public:
  Collection(EngineState& state, platform::CLLocationManager& locationManager, ObjectStore& store,
             NetworkManager& networkManager, Ledger& ledger);

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

  /// Stores fixes, each with a save of its own; nothing while the SDK is not activated.
  void addNewLocationToDatabase(std::vector<platform::CLLocation> fixes, std::string_view activity,
                                std::string_view method, std::string_view serviceaction);
  /// Stores the last known position again, if there is one, to mark the moment of an event.
  void recordEvent(std::string_view serviceaction);

  /// What keeps positions away now, as far as the engine knows; absent while fixes should come.
  std::optional<GapCause> obstacle() const;
  /// To be called when `obstacle` may have changed.
  void noteObstacle() { ledger_.obstacleIs(obstacle()); }

  /// The permission changed; queues its work on `serialQueue`.
  void didChangeAuthorization(platform::CLAuthorizationStatus status);

 private:
  void setStopReceiveLocationUpdate(bool stopped, std::string_view message);

  EngineState& state_;
  platform::CLLocationManager& locationManager_;
  ObjectStore& store_;
  NetworkManager& networkManager_;
  Ledger& ledger_;
};

}  // namespace tarvo
