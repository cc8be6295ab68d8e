#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/ActivationMode.h>

#include "platform/foundation/Guarded.h"
#include "settings/UploadChannel.h"

namespace tarvo {

/// Who this device is to the backend; both parts or nothing.
struct Identity {
  std::string userUUID;
  std::string userSecret;
};

/// The values that the whole process shares and every floor reads; the class-wide names on `Tarvo`,
/// `NetworkManager` and `LocationManager` are these. The plain ones are members; those with a rule have operations.
///
/// Threads: any; each read, change and operation is one step. Lives as long as the process.
class Settings {
 public:
  static Settings& shared();

  platform::Guarded<std::int64_t> activateStatus{mode::kDeactivated};
  platform::Guarded<std::string> tarvoapiKey, apiKeySecret, bundleID, deviceToken;
  platform::Guarded<bool> tokenSent;
  platform::Guarded<std::int64_t> lastTripID;

  platform::Guarded<std::optional<std::string>> userUUID, userSecret;
  /// Makes the identifier known unless one is; for a user that has just been stored.
  void adoptUserUUID(std::string_view uuid);
  /// Memory and user defaults in one step, so that a reload in between cannot lose the secret.
  void storeUserSecret(std::string secret);
  /// What the user defaults hold, absent included, replaces what is in memory. Returns it.
  std::optional<std::string> reloadUserSecret();
  std::optional<Identity> identity() const;

  std::string clientID() const { return clientID_.get(); }
  /// Refuses (false, with a line in the system log) what would make the request URLs unparsable.
  bool setClientID(std::string_view clientID);

  std::string remoteWebServerURL() const;
  /// Refuses (false, with a line in the system log) what is no absolute http(s) URL, and plain http to a host other
  /// than loopback unless allowed. A client copies the address when it is built.
  bool setRemoteWebServerURL(std::string_view url, bool allowPlainHttp);

  UploadChannel uploadChannel;

  // What the host asked for and the backend has not confirmed yet.
  platform::Guarded<std::map<std::string, std::string>> subscriptions;
  platform::Guarded<std::set<std::string>> unsubscriptions;
  platform::Guarded<std::map<std::string, std::string>> tagsToSet;
  platform::Guarded<std::vector<std::string>> tagsToUnset;

 private:
  Settings() = default;

  /// Held while the secret goes to or comes from the disk.
  platform::Mutex secretMutex_;
  platform::Guarded<std::string> clientID_, remoteWebServerURL_;
};

}  // namespace tarvo
