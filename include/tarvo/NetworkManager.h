#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>

namespace tarvo {

namespace platform {
struct URLRequest;
class UserDefaults;
}  // namespace platform
class NetworkManager;

/// Told of the log upload's replies and of session errors, on the background session's queue. The session belongs to
/// the engine's client, so it is that one's delegate, the engine, who hears of them, not those of a host's own clients.
///
/// `manager` is a handle for the call: do not keep its address.
class NetworkManagerDelegate {
 public:
  virtual ~NetworkManagerDelegate() = default;
  virtual void networkManagerReceivedSomeData(NetworkManager& manager, const std::string& data) = 0;
  virtual void networkManagerReceivedSessionError(NetworkManager& manager) = 0;
};

/// The SDK's only client of the backend: builds the authenticated requests, sends them and reads the answers.
///
/// Class-wide fields are shared by all clients of the process and guarded. Threads: any; every call returns once its
/// request has been started, and answers are handled one at a time on the shared session's queue.
/// Errors: never throws; failures are logged and the call is dropped. A base address that is no URL, and a user-bound
/// request without identity, stop the process.
/// Each client reads the user's secret from the user defaults when it is built, and opens (or joins) the background
/// session of the process. What an answer or the session tells the engine builds it if there is none yet.
class TARVO_API NetworkManager {
 public:
  /// Subscription name to notification value, waiting to be registered: a copy, the whole list, one entry.
  static std::map<std::string, std::string> SUBSCRIPTION_LIST();
  static void setSUBSCRIPTION_LIST(std::map<std::string, std::string> list);
  static void setSUBSCRIPTION_LIST(std::string name, std::string value);
  /// Subscription names waiting to be unregistered: a copy, the whole set, one name.
  static std::set<std::string> UNSUBSCRIPTION_LIST();
  static void setUNSUBSCRIPTION_LIST(std::set<std::string> names);
  static void addUNSUBSCRIPTION_LIST(std::string name);
  /// The user-defaults key of the last points-of-interest version.
  static constexpr const char* LAST_POI_VERSION = "poi_version";
  static std::string apiKeySecret();
  static void setApiKeySecret(std::string secret);
  static std::optional<std::string> UUID_SECRET_KEY();
  static void setUUID_SECRET_KEY(std::optional<std::string> secret);
  /// True while a position batch is in flight.
  static bool CANAL_LOCK();
  static void setCANAL_LOCK(bool locked);
  static platform::Date CANAL_TIME_LOCK();
  static void setCANAL_TIME_LOCK(platform::Date date);
  static std::int64_t LAST_TRIP_ID();
  static void setLAST_TRIP_ID(std::int64_t id);

  /// Whether a packet can leave towards the host of `url` (Wi-Fi or any network); may block on the resolver.
  static bool isWebServerReachable(bool viaWiFi, std::string_view url);

  NetworkManager();
  ~NetworkManager();
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  /// Kept strongly.
  void setDelegate(std::shared_ptr<NetworkManagerDelegate> delegate);
  std::shared_ptr<NetworkManagerDelegate> delegate() const;
  /// Name of the backend's environment, "prod" at first; goes into token, subscription and tag calls.
  std::string envir() const;
  void setEnvir(std::string name);

  /// The user-defaults key of the user's secret.
  static constexpr const char* SECRET_KEY = "uuid_secret_key";
  /// The standard ones.
  platform::UserDefaults& defaults() const;

  /// A complete request: `path` may carry a query. Registration ("users") authenticates with the API key, all else
  /// with the user.
  platform::URLRequest request(std::string_view method, std::string_view path, std::optional<std::string> body) const;

  /// Posts a batch. `first` and `last` are its indexes as texts, handed back to the engine with the acknowledgement;
  /// the channel is the caller's to take. Only a status other than 200 frees it without one.
  void sendDataInBatchToRemoteWebServer(std::string json, const std::string& first, const std::string& last);

  // Downloads. They need an identity; past trips are asked for only when the newest one held is not the one announced.
  void getNextTrip();
  void getLocationHistoryEXTRAPOLATED();
  void getPOI();

  /// Registers the device; the first answer of a process makes the user known to the engine, every one its secret.
  void sendUserToRemoteWebServer(const std::string& data);

  // These can come before the registration: without an identity they write a line and send nothing.
  void sendTokenremoteWebServer();
  void userConfigremoteWebServer();
  /// Takes the name from SUBSCRIPTION_LIST once the backend has accepted it.
  void subscriptionRegiter(const std::string& subscription, const std::string& notification);
  /// Takes the name from SUBSCRIPTION_LIST at once, from UNSUBSCRIPTION_LIST once the backend has accepted it.
  void subscriptionUnRegister(const std::string& subscription);
  void setTags(const std::string& name, const std::string& value);
  void unsetTags(const std::string& name);
  void resetBackend();
  void resetGeoProfile();
  /// Uploads every log file but those of today and those whose upload is under way, and closes each file's multipart
  /// body before.
  void sendLogToRemoteWebServer();

  /// Joins the session that the application was woken for and goes on with the uploads that an earlier process has
  /// left. The handler is called once, on the main queue, when the session's events are finished; at once when no
  /// transfer is left, and in modes from 0 to 7, in which the uploads rest.
  void handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);
  /// Joins the session of that identifier if it is open, its transfers untouched, and opens it otherwise.
  void recreateBackgroundSession(const std::string& identifier);

 private:
  struct State;
  struct Reset;
  /// For an answer: its client again.
  explicit NetworkManager(std::shared_ptr<State> state);
  void reset(const Reset& reset);
  /// Goes on with the log uploads that an earlier process has left.
  void takeUpTransfers();
  friend class Collection;  ///< knows when

  std::shared_ptr<State> state_;
};

}  // namespace tarvo
