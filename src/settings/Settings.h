#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "settings/UploadChannel.h"

namespace tarvo {

/// Who this device is to the backend; both parts or nothing.
struct Identity {
  std::string userUUID;
  std::string userSecret;
};

/// The values that the whole process shares and every floor reads; the class-wide names on `Tarvo`,
/// `NetworkManager` and `LocationManager` are these.
///
/// Threads: any; each operation is one step under one lock. Never log while holding it: the log reads from here.
/// Lives as long as the process.
class Settings {
 public:
  static Settings& shared();

  std::int64_t activateStatus() const;
  void setActivateStatus(std::int64_t mode);

  std::string clientID() const;
  /// Refuses (false, with a line in the system log) what would make the request URLs unparsable.
  bool setClientID(std::string_view clientID);
  std::string tarvoapiKey() const;
  void setTarvoapiKey(std::string key);
  std::string bundleID() const;
  void setBundleID(std::string identifier);
  std::string deviceToken() const;
  void setDeviceToken(std::string token);
  bool tokenSent() const;
  void setTokenSent(bool sent);
  /// True for the one caller that may send the token.
  bool claimTokenSending();

  std::string apiKeySecret() const;
  void setApiKeySecret(std::string secret);

  std::optional<std::string> userUUID() const;
  void setUserUUID(std::optional<std::string> uuid);
  /// Makes the identifier known unless one is; for a user that has just been stored.
  void adoptUserUUID(std::string_view uuid);
  std::optional<std::string> userSecret() const;
  void setUserSecret(std::optional<std::string> secret);
  /// Memory and user defaults in one step, so that a reload in between cannot lose the secret.
  void storeUserSecret(std::string secret);
  /// What the user defaults hold, absent included, replaces what is in memory. Returns it.
  std::optional<std::string> reloadUserSecret();
  std::optional<Identity> identity() const;

  std::string remoteWebServerURL() const;
  /// Refuses (false, with a line in the system log) what is no absolute http(s) URL, and plain http to a host other
  /// than loopback unless allowed. A client copies the address when it is built.
  bool setRemoteWebServerURL(std::string_view url, bool allowPlainHttp);

  UploadChannel& uploadChannel() { return channel_; }
  std::int64_t lastTripID() const;
  void setLastTripID(std::int64_t id);
  /// Sets it; answers whether it differed before.
  bool changeLastTripID(std::int64_t id);

  std::map<std::string, std::string> subscriptions() const;
  void setSubscription(std::string name, std::string value);
  void removeSubscription(std::string_view name);
  void replaceSubscriptions(std::map<std::string, std::string> list);
  std::set<std::string> unsubscriptions() const;
  void addUnsubscription(std::string name);
  void removeUnsubscription(std::string_view name);
  void replaceUnsubscriptions(std::set<std::string> names);
  std::map<std::string, std::string> setTags() const;
  void addSetTag(std::string name, std::string value);
  void replaceSetTags(std::map<std::string, std::string> tags);
  std::vector<std::string> unsetTags() const;
  void addUnsetTag(std::string name);
  void replaceUnsetTags(std::vector<std::string> names);

 private:
  Settings() = default;

  struct Values {
    std::int64_t activateStatus = -4;
    std::string clientID, tarvoapiKey, bundleID, deviceToken, apiKeySecret;
    bool tokenSent = false;
    std::optional<std::string> userUUID, userSecret;
    std::string remoteWebServerURL;
    std::int64_t lastTripID = 0;
    std::map<std::string, std::string> subscriptions, setTags;
    std::set<std::string> unsubscriptions;
    std::vector<std::string> unsetTags;
  };
  /// Held while the secret goes to or comes from the disk; taken before `mutex_`, which never waits for a file.
  platform::Mutex secretMutex_;
  mutable platform::Mutex mutex_;
  Values values_ GUARDED_BY(mutex_);
  UploadChannel channel_;
};

}  // namespace tarvo
