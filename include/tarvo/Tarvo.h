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
#include <tarvo/Export.h>
#include <tarvo/LocationManager.h>
#include <tarvo/LocationsHistory.h>
#include <tarvo/Trip.h>
#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/UserDefaults.h>
#include <tarvo/platform/Value.h>

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
/// wait for the object store. Errors: never throws; what cannot be done is logged, what must not be read is absent.
class TARVO_API Tarvo {
 public:
  using Trip = tarvo::Trip;
  using LocationsHistory = tarvo::LocationsHistory;

  static constexpr int TARVO_FORMAT_RAW = 1;
  static constexpr int TARVO_FORMAT_EXTRAPOLATED = 2;
  static constexpr const char* GEOJSON_LINESTRING = "LineString";
  static constexpr const char* GEOJSON_MULTIPOINT = "MultiPoint";

  // Modes, told in ActivationMode.h.
  static constexpr std::int64_t LOCAL_FOREGROUND = mode::kLocalForeground;
  static constexpr std::int64_t LOCAL_BACKGROUND = mode::kLocalBackground;
  static constexpr std::int64_t BACKEND_BACKGROUND = mode::kBackendBackground;
  static constexpr std::int64_t BACKEND_GEOPROFILE = mode::kBackendGeoprofile;
  static constexpr std::int64_t DEACTIVE_ALL = mode::kDeactivated;

  // Process-wide values, guarded; the getters give copies.
  static std::int64_t ACTIVATE_STATUS();
  static void setACTIVATE_STATUS(std::int64_t mode);
  static std::string tarvoapiKey();
  static void setTarvoapiKey(std::string key);
  static std::string clientID();
  /// Refused (false, with a line in the system log) unless it can stand in a URL's path as it is; "%XX" can.
  static bool setClientID(std::string_view identifier);
  static std::string bundleID();
  static void setBundleID(std::string identifier);
  static std::string deviceToken();
  static void setDeviceToken(std::string token);
  static bool tokenSent();
  static void setTokenSent(bool sent);
  static const std::string& backgroundSessionID();
  /// Tags that each push message sends to the backend again, name to value, and names that it removes again.
  static std::map<std::string, std::string> SET_TAGS_LIST();
  static void setSET_TAGS_LIST(std::map<std::string, std::string> tags);
  static std::vector<std::string> UNSET_TAGS_LIST();
  static void setUNSET_TAGS_LIST(std::vector<std::string> names);
  static Trip LastPrediction();
  static void setLastPrediction(Trip prediction);

  Tarvo();
  Tarvo(const Tarvo&) = default;
  Tarvo& operator=(const Tarvo&) = default;
  /// Whether both are handles of the same object.
  bool operator==(const Tarvo&) const = default;

  /// The engine.
  LocationManager& locationManager() const;
  /// The standard ones.
  platform::UserDefaults& defaults() const;
  std::shared_ptr<TarvoDelegate> delegate() const;
  /// Kept strongly. Events reach this object from now on, unless the pointer is empty.
  void setDelegate(std::shared_ptr<TarvoDelegate> delegate);

  /// Sets the mode and starts what it needs; -4 stops the location services. Other integers are stored as they are.
  void activate(std::int64_t service);
  /// Starts standard updates and stores the current position, in any mode from 0.
  void serviceConnect();
  /// Lets new positions reach the delegate, or keeps them from it; collection goes on.
  void requestLocationUpdate();
  void stopLocationUpdate();

  /// Absent in mode -4 and before the first stored position.
  std::optional<platform::CLLocation> getCurrentLocation();
  /// Raw positions from mode 4, past trips from mode 8; absent below, when there are none, and for other formats.
  /// Absent bounds are open; both are included and, for positions, compared with the time of storage.
  std::optional<LocationsHistory> getLocationHistory(int format, std::optional<platform::Date> since,
                                                     std::optional<platform::Date> until);
  /// The latest prediction, possibly an empty one, from mode 12.
  std::optional<Trip> getNextTrip();
  /// The zones of the stored places, GeoJSON texts in UTF-8, highest identifier first; in any mode.
  std::vector<std::string> getPointOfInterests();

  /// Deletes stored past trips and places; positions stay.
  void resetLocalHistory();
  void resetBackendHistory();
  void resetGeoProfileHistory();

  void didRegisterForRemoteNotificationsWithDeviceToken(const std::string& token);
  /// True when the message was for this SDK, also when the mode left nothing to do. In a backend mode, before any
  /// position is known, it stops the process.
  bool didReceiveRemoteNotification(const platform::Dictionary& userInfo);
  /// Gives the secret of the host's API key; in modes from 8 the key and client id are read from the property list,
  /// and the device is registered unless it already is.
  void setApiKeySecret(const std::string& secret);
  void requestRouteMatch();
  void stopRouteMatch();
  void requestPredictionUpdate();
  void stopPredictionUpdate();
  void setSubscription(const std::string& name, const std::string& value);
  void setUnSubscription(const std::string& name);
  void setTags(const std::string& name, const std::string& value);
  void unsetTags(const std::string& name);
  /// False, keeping nothing, unless the identifier is `backgroundSessionID`.
  bool handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);

  /// For hosts without an event loop and at the end of a program: waits until all queued work and all transfers are
  /// done, or the (real) time is up, then writes what could not be saved before, if there is room again, and moves what
  /// the store's log holds into its file. Runs the main queue's
  /// blocks when called on the main thread (elsewhere somebody must pump it); never call it from a callback. Answers
  /// whether all was done.
  static bool waitUntilIdle(double seconds);

 private:
  class Core;
  explicit Tarvo(std::shared_ptr<Core> core);
  std::shared_ptr<Core> core_;
};

}  // namespace tarvo
