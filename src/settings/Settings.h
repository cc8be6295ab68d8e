#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/ActivationMode.h>
#include <tarvo/platform/Date.h>

#include "platform/foundation/Guarded.h"
#include "platform/foundation/Mutex.h"
#include "settings/HostOption.h"
#include "settings/Names.h"

namespace tarvo {

/// Name and secret that a request carries: the user's identifier and secret, or before the registration the API key and
/// its secret.
struct Credentials {
  std::string name;
  std::string secret;
};

/// Whether the text can stand in the path of a URL as it is: its characters, or well-formed "%XX", and no segment that
/// leads elsewhere ("." and "..", however written). Empty is usable: nothing was configured yet.
bool isUsableClientID(std::string_view clientID);

/// Whether the text can stand in URLs and in the names of files as it is.
bool isUsableUserUUID(std::string_view uuid);

/// The one upload channel of the process: held while a batch is in flight, free for the taking again 180 s after it
/// was last taken.
///
/// A bare flag with a time, no owner: an answer frees it whoever holds it by then, which the recovery from lost
/// answers relies on. Threads: any; taking it is one step.
class UploadChannel {
 public:
  static constexpr platform::Seconds kExpiry{180};

  struct Attempt {
    bool wasLocked;
    platform::Seconds elapsed;  ///< since it was last taken, by the installed clock; negative after a set back
    bool taken;
  };
  /// Takes the channel if it is free or stale.
  Attempt tryTake(platform::Date now);
  void release() { setLocked(false); }
  /// As in a new process.
  void reset();

  bool locked() const;
  void setLocked(bool locked);
  /// The moment of the first access, of an attempt or of this call, until it is taken.
  platform::Date takenAt() const;
  void setTakenAt(platform::Date date);

 private:
  mutable platform::Mutex mutex_;
  bool locked_ GUARDED_BY(mutex_) = false;
  mutable std::optional<platform::Date> takenAt_ GUARDED_BY(mutex_);
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
  /// Who this device is to the backend; absent until both parts are known.
  std::optional<Credentials> identity() const;

  std::string clientID() const { return clientID_.get(); }
  /// Refuses (false, with a line in the system log) what would make the request URLs unparsable.
  bool setClientID(std::string_view clientID);

  /// The backend's base address.
  std::string remoteWebServerURL() const;
  /// False, and nothing changes, once a client has copied another address; the same one again is true.
  bool setRemoteWebServerURL(std::string url);
  /// The base address for a client, which keeps it: from now on it is the only one of this process.
  std::string copyRemoteWebServerURL();

  UploadChannel uploadChannel;

  /// As the host has set them, or its property list.
  HostOption<DeliveryOptions> deliveryOptions{describedDeliveryOptions};
  HostOption<StorageLimits> storageLimits{describedStorageLimits};

  /// Grows when everything is erased. An answer to a request from before, or a fix from before, belongs to nobody any
  /// more.
  std::atomic<std::uint64_t> erasures{0};
  /// Forgets the user and what was downloaded, set or asked for on the user's behalf. What describes the host stays:
  /// its keys, its address, options and limits.
  void forgetUser();

  // What the host asked for and the backend has not confirmed yet.
  platform::Guarded<std::map<std::string, std::string>> subscriptions;
  platform::Guarded<std::set<std::string>> unsubscriptions;
  platform::Guarded<std::map<std::string, std::string>> tagsToSet;
  platform::Guarded<std::vector<std::string>> tagsToUnset;

 private:
  Settings() = default;

  /// Held while the secret goes to or comes from the disk.
  platform::Mutex secretMutex_;
  platform::Guarded<std::string> clientID_;
  struct BackendAddress {
    std::string url = names::kDefaultRemoteWebServerURL;
    bool copied = false;  ///< by a client
  };
  platform::Guarded<BackendAddress> remoteWebServerURL_;
};

}  // namespace tarvo
