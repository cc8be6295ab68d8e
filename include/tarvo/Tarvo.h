/// @file
/// The facade: the one class that a host drives.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/ActivationMode.h>
#include <tarvo/DeliveryOptions.h>
#include <tarvo/Export.h>
#include <tarvo/FlushResult.h>
#include <tarvo/Health.h>
#include <tarvo/LocationManager.h>
#include <tarvo/LocationsHistory.h>
#include <tarvo/StorageLimits.h>
#include <tarvo/Trip.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/UserDefaults.h>
#include <tarvo/platform/Value.h>

/// The SDK: the facade `Tarvo`, the engine behind it, what both give, and the options of a host.
namespace tarvo {

class Tarvo;

/// What the host is told. Called on whatever thread the event arose, one call at a time for each kind, with no lock
/// held; the host may call the SDK from here.
///
/// `tarvo` is a handle for the call: copy it or compare it with `==`, but do not keep its address.
///
/// An exception that leaves a callback, of this or any other kind that a host gives the SDK, ends the process with the
/// callback's name in the system log. The store stays whole, but what waits to be stored is lost: the fixes that
/// `tarvoDidReceiveNewLocations` is told of may be among it.
class TarvoDelegate {
 public:
  virtual ~TarvoDelegate() = default;
  /// A batch of fixes as the location service delivered it.
  virtual void tarvoDidReceiveNewLocations(Tarvo& tarvo, const std::vector<platform::CLLocation>& newLocations) = 0;
  /// The newest past trip after a download, once `requestRouteMatch` was called.
  virtual void tarvoOnRouteMatched(Tarvo& tarvo, const LocationsHistory& locationsHistory) = 0;
  /// A new prediction, once `requestPredictionUpdate` was called.
  virtual void tarvoOnPredictionUpdate(Tarvo& tarvo, const Trip& trip) = 0;
};

/// The SDK's one class for the host: activation, histories, predictions, places, push messages and tags.
///
/// A handle: copies are the same object, which lives while any of them does, and a move is a copy. Events reach one
/// object: the one that was created last or, if that was later, given a delegate last; once it is gone they reach none.
/// The engine behind it is built with the first object and lives as long as the process.
/// Threads: any. `activate`, `requestLocationUpdate` and `stopLocationUpdate` wait for the engine's main queue, reads
/// wait for the object store. Errors: throws nothing but std::bad_alloc; what cannot be done is logged, what must not
/// be read is absent.
class TARVO_API Tarvo {
 public:
  using Trip = tarvo::Trip;                          ///< a prediction
  using LocationsHistory = tarvo::LocationsHistory;  ///< positions, or past trips
  using SyncStatus = LocationManager::SyncStatus;    ///< how far the upload has come

  static constexpr int TARVO_FORMAT_RAW = 1;                       ///< of histories: positions
  static constexpr int TARVO_FORMAT_EXTRAPOLATED = 2;              ///< of histories: past trips
  static constexpr const char* GEOJSON_LINESTRING = "LineString";  ///< a line for each stretch of collection
  static constexpr const char* GEOJSON_MULTIPOINT = "MultiPoint";  ///< points

  /**@{*/
  /// A mode; tarvo/ActivationMode.h tells what each switches on.
  static constexpr std::int64_t LOCAL_FOREGROUND = mode::kLocalForeground;
  static constexpr std::int64_t LOCAL_BACKGROUND = mode::kLocalBackground;
  static constexpr std::int64_t BACKEND_BACKGROUND = mode::kBackendBackground;
  static constexpr std::int64_t BACKEND_GEOPROFILE = mode::kBackendGeoprofile;
  static constexpr std::int64_t DEACTIVE_ALL = mode::kDeactivated;
  /**@}*/

  // Process-wide values, guarded; the getters give copies.
  /// The mode, DEACTIVE_ALL at first.
  static std::int64_t ACTIVATE_STATUS();
  /// Sets the mode alone: what may be read and whether uploads run. For programs that only read; others `activate`.
  static void setACTIVATE_STATUS(std::int64_t mode);
  /**@{*/
  /// The host's API key and client identifier at the backend. Activating a mode 8 or 12 takes them (and each new object
  /// the client identifier) from what describes the host (`platform::setInfoDictionary` or the property list); what
  /// that lacks stays as it is set here, with "Failed to load" in the log.
  static std::string tarvoapiKey();
  static void setTarvoapiKey(std::string key);
  static std::string clientID();
  /**@}*/
  /// Refused (false, with a line in the system log) unless it can stand in a URL's path as it is; "%XX" can.
  static bool setClientID(std::string_view identifier);
  /**@{*/
  /// The host's bundle identifier, read from the property list with the key.
  static std::string bundleID();
  static void setBundleID(std::string identifier);
  /**@}*/
  /**@{*/
  /// The token for push messages, as `didRegisterForRemoteNotificationsWithDeviceToken` has set it, and whether a
  /// registration of this process has offered it to the backend; what became of that is only logged.
  static std::string deviceToken();
  static void setDeviceToken(std::string token);
  static bool tokenSent();
  static void setTokenSent(bool sent);
  /**@}*/
  /// The identifier that `handleEventsForBackgroundURLSession` answers to.
  static const std::string& backgroundSessionID();
  /**@{*/
  /// Tags that each push message sends to the backend again, name to value, and names that it removes again.
  static std::map<std::string, std::string> SET_TAGS_LIST();
  static void setSET_TAGS_LIST(std::map<std::string, std::string> tags);
  static std::vector<std::string> UNSET_TAGS_LIST();
  static void setUNSET_TAGS_LIST(std::vector<std::string> names);
  /**@}*/
  /**@{*/
  /// The prediction that was downloaded last, in any mode; an empty one at first.
  static Trip LastPrediction();
  static void setLastPrediction(Trip prediction);
  /**@}*/

  /**@{*/
  /// How positions are delivered, and how much is kept. May be set at any time; what is under way ends as it began.
  /// Until they are set they are as the host's description says (tarvo/HostKeys.h), which is read with the first look.
  static DeliveryOptions deliveryOptions();
  static void setDeliveryOptions(DeliveryOptions options);
  static StorageLimits storageLimits();
  static void setStorageLimits(StorageLimits limits);
  /**@}*/

  /// A new object, which events reach from now on. The first builds the engine.
  Tarvo();
  /**@{*/
  /// Another handle of the same object.
  Tarvo(const Tarvo&) = default;
  Tarvo& operator=(const Tarvo&) = default;
  /**@}*/
  bool operator==(const Tarvo&) const = default;  ///< whether both are handles of the same object

  /// The engine.
  LocationManager& locationManager() const;
  /// `platform::UserDefaults::standard()`.
  platform::UserDefaults& defaults() const;
  /// The one that was set last; may be empty.
  std::shared_ptr<TarvoDelegate> delegate() const;
  /// Kept strongly. Events reach this object from now on, unless the pointer is empty.
  void setDelegate(std::shared_ptr<TarvoDelegate> delegate);

  /// Sets the mode, asks for the permission that it needs and starts collection; modes 8 and 12 also do what
  /// `setApiKeySecret` does with the secret given before, and register for push messages. DEACTIVE_ALL stops
  /// collection. Other integers are stored as they are.
  void activate(std::int64_t service);
  /// Starts standard updates and stores the last known position again, in any mode from 0; `activate` has done so.
  void serviceConnect();
  /**@{*/
  /// Lets new positions reach the delegate (nothing in mode DEACTIVE_ALL), or keeps them from it; collection goes on.
  void requestLocationUpdate();
  void stopLocationUpdate();
  /**@}*/

  /// The stored position with the newest fix time; absent in mode -4, before the first stored position, and when it
  /// lacks a value. Asks for the permission that the mode needs.
  std::optional<platform::CLLocation> getCurrentLocation();
  /// Raw positions from mode 4, past trips from mode 8; absent below, when there are none, and for other formats.
  /// Absent bounds are open; both are included and, for positions, compared with the time of storage, for trips with
  /// their start.
  std::optional<LocationsHistory> getLocationHistory(int format, std::optional<platform::Date> since,
                                                     std::optional<platform::Date> until);
  /// The latest prediction, possibly an empty one, from mode 12.
  std::optional<Trip> getNextTrip();
  /// How far the upload has come: counts in the store, in any mode.
  SyncStatus syncStatus() const;
  /// Where the positions are, what holds them up, and why some are missing; in any mode. Waits for the object store.
  Health health() const;
  /// The zones of the stored places, GeoJSON texts in UTF-8, highest identifier first; in any mode.
  std::vector<std::string> getPointOfInterests();

  /// For a person's right to be forgotten: erases positions, trips, places, the user with its secret, the identifier of
  /// the device, logs, uploads under way and all settings, from the disk (each file is overwritten, then removed; what
  /// a disk can still hold: docs/hosting.md) and from this process. Collection stops, the mode is DEACTIVE_ALL,
  /// transfers end, and answers that come later are dropped. The host's own keys, options and delegates stay: the next
  /// activation registers a new user, whose positions begin at 0.
  ///
  /// A kill at any moment is made up for by the next process that starts on this home, before it reads anything of it.
  /// The same after false, with the reason in the system log: another process has the right to write, the store cannot
  /// be opened, or the disk refuses. Until a call or a start has done it nothing should be activated: it would be
  /// erased too.
  ///
  /// Waits for what the SDK is doing, up to 2 s for another process, and as long as it takes to overwrite the files.
  /// Any thread, but not inside a callback on a thread of the SDK, which stops the process; no other call to the SDK
  /// meanwhile.
  bool eraseEverything();
  /// Deletes stored past trips and places; positions stay.
  void resetLocalHistory();
  /**@{*/
  /// Ask the backend to forget what it has derived: past trips and the profile of places and predictions, or the
  /// profile alone. Nothing is sent before this device is registered; what is stored here stays.
  void resetBackendHistory();
  void resetGeoProfileHistory();
  /**@}*/

  /// Gives the backend the token for push messages, at once when this device is registered, else with the registration.
  void didRegisterForRemoteNotificationsWithDeviceToken(const std::string& token);
  /// True when the message was for this SDK ("messageFrom" is the text "tarvo"), also when the mode left nothing to do.
  /// In a mode from 8, before this process has had a fix, it stops the process: call it only after a first
  /// `LocationService::deliver`, or set `DeliveryOptions::dropsProtocolBreaks`.
  bool didReceiveRemoteNotification(const platform::Dictionary& userInfo);
  /// Gives the secret of the host's API key. This is the one that a host calls, before or after `activate`;
  /// `NetworkManager::setApiKeySecret` only keeps the secret. In modes from 8 the key and client id are read from the
  /// property list, the device is registered unless it already is, and an upload pass is started.
  void setApiKeySecret(const std::string& secret);

  // Subscriptions and tags go to the backend at once in modes from 8, as far as this device is registered. Below they
  // are remembered, and the tags go with the next push message that comes in such a mode.
  /// Subscribes to silent messages about new past trips and tells the delegate of them from now on.
  void requestRouteMatch();
  /// Tells the delegate no more; the subscription stays.
  void stopRouteMatch();
  /// Subscribes to silent messages about new predictions and tells the delegate of them from now on.
  void requestPredictionUpdate();
  /// Tells the delegate no more; the subscription stays.
  void stopPredictionUpdate();
  /// Subscribes to push messages: `value` is what the backend is to send, a JSON text.
  void setSubscription(const std::string& name, const std::string& value);
  /// Ends that subscription.
  void setUnSubscription(const std::string& name);
  /// Sets a tag of this user at the backend, now and with each push message, until the host removes it from
  /// SET_TAGS_LIST.
  void setTags(const std::string& name, const std::string& value);
  /// Removes a tag at the backend, now and with each push message, until the host removes it from UNSET_TAGS_LIST.
  void unsetTags(const std::string& name);
  /// For a process that was started to finish background transfers: goes on with the log uploads of an earlier process
  /// and calls the handler on the main queue when their events are finished. False, keeping nothing, unless the
  /// identifier is `backgroundSessionID`.
  bool handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);

  /// For hosts without an event loop and at the end of a program: waits until all queued work and all transfers are
  /// done, or the (real) time is up, then writes what could not be saved before, if there is room again, and moves what
  /// the store's log holds into its file. Runs the main queue's blocks when called on the main thread (elsewhere
  /// somebody must pump it). In a callback on a thread of the SDK it stops the process. Answers whether all was done,
  /// which does not mean that all was uploaded: see `syncStatus`.
  static bool waitUntilIdle(double seconds);

  /// Uploads what has been collected before the call, also what is on its way to the store: starts one pass after the
  /// other until all of it is acknowledged, nothing can be sent, or the (real) time is up; then ends as `waitUntilIdle`
  /// does. With 0 seconds it only looks. What acknowledges a batch: docs/hosting.md.
  ///
  /// It ends the wait after a failure once, as the host's own pass does, and keeps to the waits of what fails after
  /// that (`DeliveryOptions::confirmed`). From one try without an acknowledgement to the next it lets pass 1 s, and
  /// each time twice as long, up to a minute. While the upload channel is held (a transfer without an answer; the first
  /// 180 s of a fresh device) it waits. It needs no interval between batches and keeps to the bound of bytes.
  ///
  /// Any thread, several at once: on the main thread it runs the main queue's blocks, elsewhere nobody need pump it. In
  /// a callback on a thread of the SDK it stops the process. Nothing ends it early, and what a pass itself waits for
  /// (10 s for another process that writes, the resolver) is not cut short.
  static FlushResult flush(double seconds);

  /// For a watchdog: calls `answered` on the main queue after the question has gone through the location service's
  /// delivery queue, the engine's main queue, the queue that writes positions and the store's, behind all that waits
  /// there. A part that is stuck, or a host's callback that does not return, keeps the answer away for good.
  ///
  /// Any thread, also in callbacks, in any mode; returns at once. Questions are answered in their order, each once.
  /// Nothing is stored or logged. Until it is answered it is work that `waitUntilIdle` waits for.
  static void probe(std::function<void()> answered);

 private:
  class Core;
  explicit Tarvo(std::shared_ptr<Core> core);
  std::shared_ptr<Core> core_;
};

}  // namespace tarvo
