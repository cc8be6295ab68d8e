#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include <tarvo/FlushResult.h>
#include <tarvo/Health.h>
#include <tarvo/LocationManager.h>
#include <tarvo/NetworkManager.h>

#include "engine/BackgroundModes.h"
#include "engine/Collection.h"
#include "engine/EngineState.h"
#include "engine/Geofencing.h"
#include "engine/Intake.h"
#include "platform/location/CLLocationManager.h"
#include "settings/EngineLink.h"
#include "store/Ledger.h"
#include "store/ObjectStore.h"
#include "store/Retention.h"
#include "sync/DeviceRegistration.h"
#include "sync/DownloadIngest.h"
#include "sync/HistoryReads.h"
#include "sync/UploadPipeline.h"

namespace tarvo {

/// All parts of the engine, built and wired in the order in which they stand here.
///
/// Lives as long as the process. Threads: each part says its own.
class EngineParts final : public platform::CLLocationManagerDelegate, public EngineLink {
 public:
  explicit EngineParts(LocationManager& engine);

  /// Those of a built engine; for the facade, benchmarks and tests.
  static EngineParts& of(LocationManager& engine) { return *engine.parts_; }

  /// What the engine does once it exists, in this order; returns after the first upload pass has been started and the
  /// location service's first report of the permission has been handled.
  void startUp();

  /// Deletes past trips and places and saves at once: a reset must survive a kill right after it.
  void resetLocalHistory();
  /// Where positions are, what holds them up, and why some are missing. Waits for the store's blocks.
  Health health();
  /// Erases everything that is kept of the user, in this process and on the disk, and stops collection. Absent on
  /// success; else the next start on this home goes on. Never from inside a callback of the SDK.
  std::optional<platform::Error> eraseEverything();
  /// Writes what could not be saved before, if there is room again, and what has changed in the ledger, and moves what
  /// the store's log holds into its file.
  void checkpoint();
  /// Starts upload passes until what has been collected is delivered, nothing can be sent, or the real time is up
  /// (Tarvo::flush). Never from inside a callback of the SDK.
  FlushResult flush(platform::Seconds limit);
  /// Runs the block, if there is one, on the main queue once all queues that a fix passes on its way to the store have
  /// come by what waits there now. Any thread; returns at once.
  void probe(std::function<void()>&& answered);

  LocationManager& engine;
  platform::CLLocationManager locationManager;
  NetworkManager networkManager;
  EngineState state;
  ObjectStore store;
  Ledger ledger;
  Retention retention;
  DeviceRegistration registration;
  UploadPipeline pipeline;
  HistoryReads history;
  DownloadIngest downloads;
  Collection collection;
  Geofencing geofencing;
  BackgroundModes modes;
  Intake intake;

  // From the location service, on its delivery queue.
  void didUpdateLocations(platform::CLLocationManager&, const std::vector<platform::CLLocation>& locations) override;
  void didFailWithError(platform::CLLocationManager&, const platform::Error& error) override;
  void didFinishDeferredUpdates(platform::CLLocationManager&, const std::optional<platform::Error>& error) override;
  void didChangeAuthorization(platform::CLLocationManager&, platform::CLAuthorizationStatus status) override;
  void didStartMonitoring(platform::CLLocationManager&, const platform::CLCircularRegion& region) override;
  void monitoringDidFail(platform::CLLocationManager&, const std::optional<platform::CLCircularRegion>&,
                         const platform::Error& error) override;
  void didEnterRegion(platform::CLLocationManager&, const platform::CLCircularRegion& region) override;
  void didExitRegion(platform::CLLocationManager&, const platform::CLCircularRegion& region) override;

  // From the backend clients.
  NetworkManager& client() override { return networkManager; }
  void acknowledge(const std::string& locationIndex, const std::string& firstLoc, const BatchEnd& end) override;
  void batchFailed(const BatchEnd& end) override;
  void startPass() override;
  void storeUser(const std::string& uuid, const std::string& creationDate) override;
  bool alreadyReceivedUUID() const override;
  void setAlreadyReceivedUUID(bool received) override;
  NewestTrip newestTrip() override;
  void submitLastTrips(std::vector<platform::Dictionary> trips) override;
  void submitPOIs(std::vector<platform::Dictionary> pois) override;
  void predictionStored() override;

 private:
  struct Probe;
  void subscribeForNotifications();
  void readStoredUser();
  void configureLocationService();
  void probeServices();

  std::atomic<std::uint64_t> probesBegun_{0}, probesEnded_{0};
};

}  // namespace tarvo
