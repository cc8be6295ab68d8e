#pragma once

#include <memory>
#include <optional>
#include <vector>

#include <tarvo/LocationManager.h>
#include <tarvo/platform/CLLocation.h>

#include "engine/BackgroundModes.h"
#include "engine/Collection.h"
#include "engine/EngineState.h"
#include "engine/Geofencing.h"
#include "platform/foundation/Error.h"
#include "sync/UploadPipeline.h"

namespace tarvo {

/// What becomes of each delivered batch of fixes: stored, uploaded, told to the host, and used to follow battery and
/// geofences. Nothing is filtered here.
///
/// Threads: `didUpdateLocations` on the location service's delivery queue, which it holds for the upload pass;
/// `refreshLoc` on the caller's thread. Neither may be called from `serialNetworkDataQueue`.
class Intake {
 public:
  Intake(LocationManager& engine, EngineState& state, Collection& collection, BackgroundModes& modes,
         Geofencing& geofencing, UploadPipeline& pipeline);

  void didUpdateLocations(const std::vector<platform::CLLocation>& locations);
  void didFailWithError(const platform::Error& error);
  /// Deferred updates are never asked for; a call without an error stops the process.
  void didFinishDeferredUpdates(const std::optional<platform::Error>& error);

  /// Stores a record with the current permission for a push message, then runs an upload pass.
  void refreshLoc();

 private:
  void intakeStep(std::vector<platform::CLLocation> fixes);
  void storeRefresh();
  void followGeofence(const platform::CLLocation& first, platform::Seconds lastUpdateAge);
  void checkBattery();
  void uploadPass();

  LocationManager& engine_;
  EngineState& state_;
  Collection& collection_;
  BackgroundModes& modes_;
  Geofencing& geofencing_;
  UploadPipeline& pipeline_;
};

}  // namespace tarvo
