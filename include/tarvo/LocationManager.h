/// @file
/// The engine behind the facade.
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
/// uploads them and follows the application's state. A host works with `Tarvo`, which calls it. An operation that only
/// the SDK's own parts should call says so.
///
/// Threads: any thread unless an operation says otherwise. `start` runs on the caller's thread; `stop`,
/// `stopLocationUpdate` and `requestLocationUpdate` wait for the engine's main queue and must not be called from a
/// block on it. Reads wait for the object store.
/// Errors: throws nothing but std::bad_alloc; failures are logged and the operation is dropped.
class TARVO_API LocationManager {
 public:
  /// The engine. The first call builds it and returns after its first upload pass has been started.
  static LocationManager& sharedInstance();

  /// Version of the form in which positions are sent; goes with each of them.
  static const std::string& terrameshDataVersion();
  /// A name for notifications about the backend; the SDK posts none under it.
  static const std::string& callFromServerNotificationKey();
  /// Identifier of the background session that uploads log files, see `handleEventsForBackgroundURLSession`.
  static const std::string& backgroundSessionID();
  /// The backend's base address, such as "https://backend.example/api", without a slash at its end (one would
  /// stand twice in each request).
  static std::string remoteWebServerURL();
  /// Before the first `Tarvo`, engine or client: each client copies the address, and from the first copy on another one
  /// is refused. Refused too (false, with a line in the system log, and nothing changes) is what is no absolute https
  /// URL, unless it is plain http to loopback or the host allows plain http explicitly.
  static bool setRemoteWebServerURL(std::string_view url, bool allowPlainHttp = false);

  /// The identifier that the backend gave this device; absent until it is registered.
  static std::optional<std::string> userUUID();
  /// For the SDK's own parts: a host has it from the registration. Refused (false, with a line in the system log)
  /// unless it can stand in a URL and in a file's name as it is.
  static bool setUserUUID(std::optional<std::string> uuid);

  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;

  /// For the SDK's own parts: takes the place of the `Tarvo` that events reach, whose delegate then hears no more. Held
  /// weakly: the delegate may go before the engine.
  void setDelegate(const std::shared_ptr<LocationManagerDelegate>& delegate);
  /// Whom events reach now; empty once it has gone.
  std::shared_ptr<LocationManagerDelegate> delegate() const;
  /// The user's identifier that the last check of the user found, despite its name no key: nothing is authenticated
  /// with it. The key of the host is `Tarvo::tarvoapiKey`.
  std::optional<std::string> apiKey() const;
  void setApiKey(std::optional<std::string> key);  ///< for the SDK's own parts
  /// Whether collection was started and not stopped since; fixes are taken only then.
  bool tarvoStarted() const;
  void setTarvoStarted(bool started);  ///< for the SDK's own parts: starts no service
  /// Whether this process has been given the user's identifier by the backend: a later answer stores no second user.
  bool alreadyReceivedUUID() const;
  void setAlreadyReceivedUUID(bool received);  ///< for the SDK's own parts
  /**@{*/
  /// A place for an upload timer, which nothing arms or reads: uploads are driven by events alone.
  std::shared_ptr<void> networkTimer() const;
  void setNetworkTimer(std::shared_ptr<void> timer);
  /**@}*/
  /// `platform::UserDefaults::standard()`.
  platform::UserDefaults& defaults() const;
  /// Tells processes apart: 0 to 999,999,999, drawn once in each.
  std::uint32_t randomID() const;

  // What `Tarvo::activate` and its like call.
  /// In modes from 0: starts standard updates and stores the last known position again. In modes from 8 it goes on with
  /// the log uploads that an earlier process has left. A second call stores that position once more.
  void start();
  /// Stops standard updates and takes no more fixes. Regions and significant changes stay on.
  void stop();
  /// Keeps new positions from the delegate; collection goes on.
  void stopLocationUpdate();
  /// Lets new positions reach the delegate.
  void requestLocationUpdate();
  /// Asks the user for the permission that a mode needs, unless it is given, and does not wait for the answer. `status`
  /// is that mode. Returns the status before anything was asked for.
  platform::CLAuthorizationStatus checkAndRequestLocationAuthorization(std::int64_t status);
  /// Shows the user an alert that leads to the settings, where a permission that was denied can be given.
  void requestAgainLocationAuthorization();
  /// The stored position with the newest fix time; absent without one, or when it lacks a value. Asks for the
  /// permission that the mode needs.
  std::optional<platform::CLLocation> getLastLocation();
  /// Runs the location service as on the screen, unless it does: standard updates each 20 m, and on the screen nothing
  /// else. Queued; returns at once.
  void foregroundMode();
  /// "app_inactive", "app_paused" or "app_resumed".
  static std::string getAppState();
  /// Stores the service's newest fix for a push message, or the last stored one without "always" permission, and starts
  /// an upload pass. Without any known position this stops the process, or with `DeliveryOptions::dropsProtocolBreaks`
  /// does nothing.
  void refreshLoc();

  /// Starts an upload pass: in modes from 8, when the channel is free or held for 180 s, posts what awaits its
  /// acknowledgement, else the oldest new positions, at most 1000. Its acknowledgement starts the next pass. Unlike the
  /// passes that the SDK starts, the host's own neither wait after a failure nor keep an interval (DeliveryOptions).
  void sendDataInBatchToRemoteWebServer();
  /// For the SDK's own parts: a pass's second half, which takes the channel for granted. Posts the oldest positions
  /// that were never posted; frees the channel when there are none.
  void sendAllUnsentDataToRemoteWebServer();
  /// For the SDK's own parts: the other second half. Posts again those of the 1000 oldest positions awaiting their
  /// acknowledgement whose `index` lies between the lowest and the highest of `locations`. Takes the channel for
  /// granted, and leaves it held when the backend is out of reach, so that nothing is posted.
  void resendAllSentWithoutACKData(const std::vector<LocationRecord>& locations);
  /// For the SDK's own parts: the backend's acknowledgement of a batch, by the last and the first index of its
  /// positions as texts. Frees the channel and starts the next pass.
  void markLocationAsSentUntilIndex(const std::string& locationIndex, const std::string& firstLoc);
  /// The identifier of the one stored user. Without one the device is registered, provided that there is an API secret.
  std::optional<std::string> checkAndRegisterUser();
  /// Asks the backend for an identity, which comes as an answer later, whether or not there is one already. A host
  /// calls `Tarvo::setApiKeySecret`, which does so when it is needed.
  void registerUserToRemoteWebServer();
  /// For the SDK's own parts: stores the identity that the backend has given. Refused as by `setUserUUID`.
  void addNewUserToDatabase(const std::string& uuid, const std::string& creationDate);
  /// All stored identities; more than one is an error that is only logged (one stored twice is made one).
  std::vector<UserRecord> getUser();

  /// Stored positions, in any mode. Absent bounds are open; by the time of storage. Empty histories are objects too.
  LocationsHistory getLocationhistory(std::optional<platform::Date> since, std::optional<platform::Date> until);
  /// Past trips that the backend has rebuilt, in any mode; by their start, so that one without a time is left out.
  LocationsHistory getLocationhistoryExtraPolated(std::optional<platform::Date> since,
                                                  std::optional<platform::Date> until);
  /// The past trip with the highest identifier.
  std::optional<PastTripRecord> getLastPastTrip();
  /// All stored places, highest identifier first.
  std::vector<PointOfInterestRecord> getPointOfInterest();
  /**@{*/
  /// Store past trips and places in the form in which the backend sends them, each with a save of its own, and return
  /// at once; then the newest trip is told to the delegate, as after a download. A trip has the keys of PastTripRecord
  /// (times as in Trip::startTime, the route an object), a place "poi_id", "lat", "lon" and the objects
  /// "point_geo_json" and "zone_geo_json". As in an answer, a "pasttrip_id" that is no integer can stop the process
  /// (see DeliveryOptions::dropsProtocolBreaks).
  void addNewLastTrip(std::vector<platform::Dictionary> trips);
  void addNewPOI(std::vector<platform::Dictionary> pois);
  /**@}*/
  /**@{*/
  /// Delete all past trips, all places; positions stay. Written with the next save: `Tarvo::resetLocalHistory` does
  /// both and saves.
  void removeData();
  void removePOIs();
  /**@}*/
  /// What `Tarvo::handleEventsForBackgroundURLSession` calls, for any identifier.
  void handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);

  /// How far the upload has come.
  struct SyncStatus {
    std::int64_t stored = 0;        ///< positions in the store's file; the next three counts are of these
    std::int64_t unsent = 0;        ///< never posted
    std::int64_t awaiting = 0;      ///< posted, not acknowledged
    std::int64_t acknowledged = 0;  ///< the rest
    std::int64_t unsaved = 0;       ///< in memory alone, since saving failed: not uploaded, lost with the process
    std::optional<std::int64_t> lastIndex;  ///< of all, also unsaved
    std::uint64_t batchesPosted = 0;        ///< by this process
    std::uint64_t positionsPosted = 0;      ///< by this process, repeats included
    bool storeAvailable = false;            ///< false also while another process writes and this one wants to
  };
  /// Counts in the store.
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
