#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/Records.h>

#include "platform/foundation/Guarded.h"
#include "store/ObjectStore.h"

namespace tarvo {

class NetworkManager;

/// Decides from the stored users whether this device is known to the backend, and registers it when it is not.
///
/// Threads: any; store work runs in blocks of the context. Owns nothing. Errors: never throws; what fails is logged
/// and the next check tries again.
class DeviceRegistration {
 public:
  DeviceRegistration(ObjectStore& store, NetworkManager& client) : store_(store), client_(client) {}

  /// The identifier of the one stored user. Without a user, or when its secret was lost, the device is registered,
  /// provided that the host has supplied an API secret. Several users are an error that is only logged, unless they are
  /// the same one.
  std::optional<std::string> checkAndRegisterUser();

  /// Sends the device's description; the answer comes back through `storeUser`.
  void registerUserToRemoteWebServer();

  /// Stores the user, makes its identifier known unless one is, and starts an upload pass on the caller's thread,
  /// behind the block that has stored it. While the settings, and with them the user's secret, cannot be written, the
  /// record waits until they are.
  void storeUser(std::string_view uuid, std::string_view creationDate);

  /// All stored users.
  std::vector<UserRecord> getUser();

  /// Receives the user's identifier from the check at the start and from those of uploads; authenticates nothing.
  platform::Guarded<std::optional<std::string>> apiKey;
  /// The backend has already issued this user's identifier to this process.
  std::atomic<bool> alreadyReceivedUUID{false};

 private:
  /// Leaves one record of each identity. Not saved here: a process that only reads must not write.
  void removeRepeatedUsers();

  ObjectStore& store_;
  NetworkManager& client_;
};

}  // namespace tarvo
