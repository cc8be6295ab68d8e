/// @file
/// The client of the backend.
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
class UserDefaults;
}
class NetworkManager;

/// Told of the log upload's replies and of session errors, on the background session's queue. The session belongs to
/// the engine's client, so it is that one's delegate, the engine, who hears of them, not those of a host's own clients.
///
/// `manager` is a handle for the call: do not keep its address.
class NetworkManagerDelegate {
 public:
  virtual ~NetworkManagerDelegate() = default;
  /// What the backend has answered to a log upload.
  virtual void networkManagerReceivedSomeData(NetworkManager& manager, const std::string& data) = 0;
  /// The background session has failed: from then on the engine posts no batch in this process. The SDK does not call
  /// it: a log upload that fails is only logged.
  virtual void networkManagerReceivedSessionError(NetworkManager& manager) = 0;
};

/// The SDK's client of the backend: sends the authenticated requests and reads the answers. `Tarvo` and the engine
/// have one each. Hosts use `Tarvo`, which calls the operations here in the modes that need them.
///
/// The static fields are shared by all clients of the process. Threads: any; every call returns once its request has
/// been started, and answers are handled one at a time on the shared session's queue. Errors: throws nothing but
/// std::bad_alloc; failures are logged and the call is dropped. A base address that is no URL, and a call of the user
/// before the registration where it is not said otherwise, stop the process. Each client copies the base address and
/// reads the user's secret from the user defaults when it is built, and opens (or joins) the background session of the
/// process. What an answer or the session tells the engine builds it if there is none yet.
class TARVO_API NetworkManager {
 public:
  /**@{*/
  /// Subscriptions that wait to be registered, name to notification value. Read as a copy; set as a whole or one entry.
  static std::map<std::string, std::string> SUBSCRIPTION_LIST();
  static void setSUBSCRIPTION_LIST(std::map<std::string, std::string> list);
  static void setSUBSCRIPTION_LIST(std::string name, std::string value);
  /**@}*/
  /**@{*/
  /// Names of subscriptions that wait to be removed. Read as a copy; set as a whole, or one name added.
  static std::set<std::string> UNSUBSCRIPTION_LIST();
  static void setUNSUBSCRIPTION_LIST(std::set<std::string> names);
  static void addUNSUBSCRIPTION_LIST(std::string name);
  /**@}*/
  /// Key in the user defaults: the version of the points of interest that were asked for last.
  static constexpr const char* LAST_POI_VERSION = "poi_version";
  /// Key in the user defaults: the user's secret.
  static const char* const SECRET_KEY;
  /**@{*/
  /// The secret of the host's API key, with which the device registers. This only stores it; hosts call
  /// `Tarvo::setApiKeySecret`, which registers the device too.
  static std::string apiKeySecret();
  static void setApiKeySecret(std::string secret);
  /**@}*/
  /**@{*/
  /// The secret that the backend has issued to this device's user; absent before the registration. The setter is for
  /// the SDK's own parts: it changes the memory alone, and the next client reads the user defaults again.
  static std::optional<std::string> UUID_SECRET_KEY();
  static void setUUID_SECRET_KEY(std::optional<std::string> secret);
  /**@}*/
  /**@{*/
  /// The lock of the upload channel: true while a position batch is under way, and from the pass of a device without a
  /// user on. The setter is for the SDK's own parts: a channel that is freed too early sends positions twice.
  static bool CANAL_LOCK();
  static void setCANAL_LOCK(bool locked);
  /**@}*/
  /**@{*/
  /// When the channel was taken last, or first looked at; 180 seconds later another batch may take it. The setter is
  /// for the SDK's own parts.
  static platform::Date CANAL_TIME_LOCK();
  static void setCANAL_TIME_LOCK(platform::Date date);
  /**@}*/
  /**@{*/
  /// The newest past trip that the backend has announced. The setter is for the SDK's own parts: a trip that is marked
  /// as announced is not downloaded until a newer one is.
  static std::int64_t LAST_TRIP_ID();
  static void setLAST_TRIP_ID(std::int64_t id);
  /**@}*/

  /// Whether a packet can leave towards the host of `url`, over any network or only over another than the cellular one
  /// (`viaWiFi`). Can wait for the resolver.
  static bool isWebServerReachable(bool viaWiFi, std::string_view url);

  NetworkManager();
  ~NetworkManager();
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  /// Who is told what the background session receives; the client keeps it alive. For the SDK's own parts: only the
  /// delegate of the engine's client is ever told.
  void setDelegate(std::shared_ptr<NetworkManagerDelegate> delegate);
  std::shared_ptr<NetworkManagerDelegate> delegate() const;  ///< the one that was set; may be empty
  /**@{*/
  /// Name of the backend's environment, "prod" at first; goes into token, subscription and tag calls.
  std::string envir() const;
  void setEnvir(std::string name);
  /**@}*/
  /// `platform::UserDefaults::standard()`.
  platform::UserDefaults& defaults() const;

  /// Posts a batch of positions. For the SDK's own parts, which take the upload channel before. `first` and `last` are
  /// the batch's indexes as texts, handed to the engine with the acknowledgement. Every outcome acknowledges the batch
  /// but a status other than 200, which only frees the channel; with `DeliveryOptions::confirmed` only an answer that
  /// confirms it does. In modes from 12 the answer starts the downloads and repeats the subscriptions that wait.
  void sendDataInBatchToRemoteWebServer(std::string json, const std::string& first, const std::string& last);

  // Downloads of what the backend has computed. They need the user's identity.
  /// The prediction of the next trip, for `Tarvo::LastPrediction`.
  void getNextTrip();
  /// The past trips from the newest stored one to LAST_TRIP_ID; nothing if these are the same.
  void getLocationHistoryEXTRAPOLATED();
  /// The points of interest. A failure forgets their version, so that the next answer to a batch asks again.
  void getPOI();

  /// Registers the device with the API key and its secret; `data` describes the device. For the SDK's own parts. The
  /// first answer of a process makes the user known to the engine, every one stores the secret.
  void sendUserToRemoteWebServer(const std::string& data);

  // These can come before the registration: without an identity they write a line and send nothing.
  /// Tells the backend the token for push messages, if there is one.
  void sendTokenremoteWebServer();
  /// Downloads the configuration; its log level goes to the user defaults.
  void userConfigremoteWebServer();
  /// Subscribes. Takes the name from SUBSCRIPTION_LIST once the backend has accepted it.
  void subscriptionRegiter(const std::string& subscription, const std::string& notification);
  /// Ends a subscription. Takes the name from SUBSCRIPTION_LIST at once, from UNSUBSCRIPTION_LIST once the backend has
  /// accepted it.
  void subscriptionUnRegister(const std::string& subscription);
  /**@{*/
  /// Gives the user a tag, or takes it away. Nothing is repeated when it fails.
  void setTags(const std::string& name, const std::string& value);
  void unsetTags(const std::string& name);
  /**@}*/
  /// Asks the backend to forget the history that it has stored of the user.
  void resetBackend();
  /// Asks the backend to forget the geographic profile that it has computed from that history.
  void resetGeoProfile();
  /// Uploads every log file but those of today and those whose upload is under way, each closed as a multipart body
  /// before.
  void sendLogToRemoteWebServer();

  /// Joins the session that the application was woken for and goes on with the uploads that an earlier process has
  /// left. The handler is called once, on the main queue, when the session's events are finished; at once when no
  /// transfer is left, and in modes from 0 to 7, in which the uploads rest. Hosts call the `Tarvo` operation of this
  /// name.
  void handleEventsForBackgroundURLSession(const std::string& identifier, std::function<void()> completionHandler);
  /// Joins the session of that identifier if it is open, its transfers untouched, and opens it otherwise. For the SDK's
  /// own parts.
  void recreateBackgroundSession(const std::string& identifier);

 private:
  struct State;
  /// Another handle on a client, for the answer to one of its requests.
  explicit NetworkManager(std::shared_ptr<State> state);
  /// Goes on with the log uploads that an earlier process has left.
  void takeUpTransfers();
  friend class Collection;  ///< knows when

  std::shared_ptr<State> state_;
};

}  // namespace tarvo
