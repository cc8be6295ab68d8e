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

/// The engine's own queues and fields.
///
/// Threads: any; each read and write of a field is one step.
struct EngineState {
  EngineState();

  // Waiting order: a location or main thread, then one of these queues, then the store's context; never back.
  platform::SerialQueue serialQueue;             ///< modes, start and stop, intake
  platform::SerialQueue serialQueueLocation;     ///< position writes
  platform::SerialQueue serialQueueLastTrips;    ///< ingest of past trips
  platform::SerialQueue serialQueuePOI;          ///< ingest of places
  platform::SerialQueue serialNetworkQueue;      ///< backend replies and session errors
  platform::SerialQueue serialNetworkDataQueue;  ///< upload passes, run synchronously

  const double desiredAccuracyForeground = platform::kCLLocationAccuracyNearestTenMeters;
  const double desiredAccuracyBackground = platform::kCLLocationAccuracyNearestTenMeters;
  const double distanceFilterForeground = 20.0;   ///< metres
  const double distanceFilterBackground = 100.0;  ///< metres

  Guarded<std::weak_ptr<LocationManagerDelegate>> delegate;
  Guarded<std::shared_ptr<void>> networkTimer;
  const std::string currentActivity = "unknown";
  Guarded<std::string> currentLocalisationMethod;
  std::atomic<bool> tarvoStarted{false};
  std::atomic<bool> stopReceiveLocationUpdate{true};
  std::atomic<bool> geofencingStarted{false};
  Guarded<std::optional<platform::CLLocation>> geofenceCenter;
  std::atomic<platform::UIDeviceBatteryState> currentBatteryState;
  Guarded<std::optional<bool>> isBackgroundMode;
  const std::uint32_t randomID;
  Guarded<platform::Date> startTime;
  Guarded<platform::Date> geofencingStartTime;

  /// Fields that the design gives the engine and that decide nothing: both modes are fixed, no update is deferred, no
  /// timer uploads. Written by start-up alone.
  struct Unconsulted {
    double deferredDistance = platform::CLLocationDistanceMax;  ///< metres
    double deferredTimeInterval = 60.0;                         ///< seconds
    bool deferringUpdates = false;
    bool useSignificantChange = true;
    bool geofencing = true;
    bool instantaneousLocationRequest = false;
    std::int64_t dataSyncWithWSInterval = 120;  ///< seconds
    std::optional<platform::Date> lastSyncDate;
    bool activityMonitoringAvailable = false;
    // What start-up finds on this device.
    bool standardServiceAvailable = false;
    bool significantChangeServiceAvailable = false;
    bool geofencingAvailable = false;
  } unconsulted;
};

}  // namespace tarvo
