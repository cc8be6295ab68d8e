#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/LocationsHistory.h>
#include <tarvo/Records.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/UserDefaults.h>
#include <tarvo/platform/Value.h>

namespace tarvo {

class EngineParts;
class LocationManager;

/// Whom the engine tells. Called on whatever thread the event arose, with no lock held and outside the store. An
/// exception that leaves an operation ends the process.
class LocationManagerDelegate {
 public:
  virtual ~LocationManagerDelegate() = default;
  /// A batch as the location service delivered it; on the service's thread.
  virtual void locationManagerDidReceiveNewLocations(LocationManager& engine,
                                                     const std::vector<platform::CLLocation>& newLocations) = 0;
  /// The newest past trip after a download; on the queue of past trips.
  virtual void locationManagerOnRouteMatched(LocationManager& engine, const LocationsHistory& locationsHistory) = 0;
  /// A prediction has been stored; on the queue of backend replies.
  virtual void onPredictionUpdateDelegate() = 0;
};

/// The engine: one for the process, built at the first touch, never destroyed. It turns fixes into stored positions,
/// uploads them and follows the application's state.
///
/// Threads: any thread unless an operation says otherwise. `start` runs on the caller's thread; `stop`,
/// `stopLocationUpdate` and `requestLocationUpdate` wait for the engine's main queue and must not be called from a
/// block on it. Reads wait for the object store.
/// Errors: never throws; failures are logged and the operation is dropped.
class TARVO_API LocationManager {
 public:
  /// The engine. The first call builds it and returns after its first upload pass has been started.
  static LocationManager& sharedInstance();

  static const std::string& terrameshDataVersion();
  static const std::string& callFromServerNotificationKey();
  static const std::string& backgroundSessionID();
  /// The backend's base address, ending in "/api".
  static std::string remoteWebServerURL();
  /// Before the first touch of the engine: clients copy the address. Refused (false, with a line in the system log)
  /// unless it is an absolute https URL, or plain http to loopback, or plain http that the host allows explicitly.
  static bool setRemoteWebServerURL(std::string_view url, bool allowPlainHttp = false);

  static std::optional<std::string> userUUID();
  /// Refused (false, with a line in the system log) unless it can stand in a URL and in a file's name as it is.
  static bool setUserUUID(std::optional<std::string> uuid);

  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;

  /// Held weakly: the delegate may go before the engine.
  void setDelegate(const std::shared_ptr<LocationManagerDelegate>& delegate);
  std::shared_ptr<LocationManagerDelegate> delegate() const;
  std::optional<std::string> apiKey() const;
  void setApiKey(std::optional<std::string> key);
  bool tarvoStarted() const;
  void setTarvoStarted(bool started);
  bool alreadyReceivedUUID() const;
  void setAlreadyReceivedUUID(bool received);
  /// Never armed: uploads are driven by events alone.
  std::shared_ptr<void> networkTimer() const;
  void setNetworkTimer(std::shared_ptr<void> timer);
  platform::UserDefaults& defaults() const;
  /// 0 to 999,999,999, drawn once in a process.
  std::uint32_t randomID() const;

  void start();
  void stop();
  void stopLocationUpdate();
  void requestLocationUpdate();
  /// `status` is the mode whose permission is needed. Returns the status before anything was asked for.
  platform::CLAuthorizationStatus checkAndRequestLocationAuthorization(std::int64_t status);
  void requestAgainLocationAuthorization();
  /// The stored position with the newest fix time; absent without one, or when it lacks a value.
  std::optional<platform::CLLocation> getLastLocation();
  void foregroundMode();
  /// "app_inactive", "app_paused" or "app_resumed".
  static std::string getAppState();
  /// Stores a fresh record for a push message. Without any known position this stops the process.
  void refreshLoc();

  void sendDataInBatchToRemoteWebServer();
  void sendAllUnsentDataToRemoteWebServer();
  /// Posts again what awaits its acknowledgement from the first to the last of these positions, by `index`, as far as
  /// it is among the 1000 oldest that do; whoever holds the channel, and nothing while the backend is out of reach.
  void resendAllSentWithoutACKData(const std::vector<LocationRecord>& locations);
  void markLocationAsSentUntilIndex(const std::string& locationIndex, const std::string& firstLoc);
  std::optional<std::string> checkAndRegisterUser();
  void registerUserToRemoteWebServer();
  /// Refused as by `setUserUUID`.
  void addNewUserToDatabase(const std::string& uuid, const std::string& creationDate);
  /// All stored identities; more than one is an error that is only logged (one stored twice is made one).
  std::vector<UserRecord> getUser();

  /// Absent bounds are open; by the time of storage. Empty histories are objects too.
  LocationsHistory getLocationhistory(std::optional<platform::Date> since, std::optional<platform::Date> until);
  LocationsHistory getLocationhistoryExtraPolated(std::optional<platform::Date> since,
                                                  std::optional<platform::Date> until);
  std::optional<PastTripRecord> getLastPastTrip();
  std::vector<PointOfInterestRecord> getPointOfInterest();
  // Store past trips and places in the form in which the backend sends them, each with a save of its own, and return
  // at once; then the newest trip is told to the delegate, as after a download. A trip has the keys of PastTripRecord
  // (times as in Trip::startTime, the route an object), a place "poi_id", "lat", "lon" and the objects "point_geo_json"
  // and "zone_geo_json". As in an answer, a "pasttrip_id" that is no integer can stop the process.
  void addNewLastTrip(std::vector<platform::Dictionary> trips);
  void addNewPOI(std::vector<platform::Dictionary> pois);
  /// Past trips; positions stay.
  void removeData();
  void removePOIs();
  void handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);

  /// How far the upload has come.
  struct SyncStatus {
    std::int64_t stored = 0;    ///< positions in the store's file; the next three counts are of these
    std::int64_t unsent = 0;    ///< never posted
    std::int64_t awaiting = 0;  ///< posted, not acknowledged
    std::int64_t acknowledged = 0;
    std::int64_t unsaved = 0;  ///< in memory alone, since saving failed: not uploaded, lost with the process
    std::optional<std::int64_t> lastIndex;  ///< of all, also unsaved
    std::uint64_t batchesPosted = 0;        ///< by this process
    std::uint64_t positionsPosted = 0;      ///< by this process, repeats included
    bool storeAvailable = false;            ///< false also while another process writes and this one wants to
  };
  SyncStatus syncStatus();

  /// One process at a time writes to a home: takes that right now instead of with the first position, and keeps it to
  /// the end of the process. Waits up to `seconds` of real time while another process has it, as does whoever needs the
  /// store meanwhile. Absent on success, else the reason in words. A program that only reads does without.
  std::optional<std::string> claimStore(double seconds);

 private:
  friend class EngineParts;
  LocationManager();
  ~LocationManager() = delete;
  EngineParts* parts_;
};

}  // namespace tarvo
