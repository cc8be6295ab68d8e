#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <tarvo/LocationManager.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/Device.h>

#include "platform/foundation/Guarded.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/location/CLLocationManager.h"

namespace tarvo {

using platform::Guarded;

/// The six queues of the engine. Waiting order: a location or main thread, then one of these, then the store's
/// context; never back.
struct EngineQueues {
  EngineQueues();
  platform::SerialQueue serialQueue;             ///< modes, start and stop, intake
  platform::SerialQueue serialQueueLocation;     ///< position writes
  platform::SerialQueue serialQueueLastTrips;    ///< ingest of past trips
  platform::SerialQueue serialQueuePOI;          ///< ingest of places
  platform::SerialQueue serialNetworkQueue;      ///< backend replies and session errors
  platform::SerialQueue serialNetworkDataQueue;  ///< upload passes, run synchronously
};

/// The engine's own fields. Threads: any; each read and write is one step.
class EngineState {
 public:
  EngineState();

  const double desiredAccuracyForeground = platform::kCLLocationAccuracyNearestTenMeters;
  const double desiredAccuracyBackground = platform::kCLLocationAccuracyNearestTenMeters;
  const double distanceFilterForeground = 20.0;
  const double distanceFilterBackground = 100.0;

  // Initial values that nothing reads or changes; they belong to the interface.
  const double deferredDistance = platform::CLLocationDistanceMax;
  const double deferredTimeInterval = 60.0;
  const bool deferringUpdates = false;
  const bool useSignificantChange = true;
  const bool geofencing = true;
  const bool activityMonitoringAvailable = false;
  const std::int64_t dataSyncWithWSInterval = 120;
  const std::optional<platform::Date> lastSyncDate;

  Guarded<std::weak_ptr<LocationManagerDelegate>> delegate;
  Guarded<std::shared_ptr<void>> networkTimer;
  const std::string currentActivity = "unknown";
  Guarded<std::string> currentLocalisationMethod;
  std::atomic<bool> tarvoStarted{false};
  std::atomic<bool> instantaneousLocationRequest{false};
  std::atomic<bool> stopReceiveLocationUpdate{true};
  std::atomic<bool> geofencingStarted{false};
  Guarded<std::optional<platform::CLLocation>> geofenceCenter;
  std::atomic<platform::UIDeviceBatteryState> currentBatteryState;
  Guarded<std::optional<bool>> isBackgroundMode;
  std::atomic<bool> standardServiceAvailable{false};
  std::atomic<bool> significantChangeServiceAvailable{false};
  std::atomic<bool> geofencingAvailable{false};
  const std::uint32_t randomID;
  Guarded<platform::Date> startTime;
  Guarded<platform::Date> geofencingStartTime;
};

}  // namespace tarvo
