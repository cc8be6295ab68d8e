#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/NetworkManager.h>

#include "net/Messages.h"
#include "platform/foundation/Mutex.h"
#include "platform/urlsession/BackgroundSession.h"
#include "platform/urlsession/URLRequest.h"
#include "settings/Settings.h"

namespace tarvo {

/// What a client consists of, shared with its requests in flight: an answer that comes after the client is gone still
/// finds everything. Threads: any.
struct NetworkManager::State final : std::enable_shared_from_this<State> {
  /// May take out of the reply what it needs.
  using Completion = std::function<void(NetworkManager& self, Reply& reply)>;

  explicit State(std::string versionedBase);

  /// A request of the registered user; for callers that have looked for the identity.
  platform::URLRequest userRequest(const Credentials& identity, std::string_view method, std::string_view path,
                                   std::optional<std::string> body = std::nullopt) const;
  /// Starts a data task of the shared session.
  void start(platform::URLRequest request, Completion completion);

  const std::string remoteServerURL;

  platform::Mutex mutex;
  std::shared_ptr<NetworkManagerDelegate> delegate GUARDED_BY(mutex);
  std::string envir GUARDED_BY(mutex) = "prod";
  std::shared_ptr<platform::BackgroundSession> backgroundSession GUARDED_BY(mutex);
  /// The running upload of a log file, or the last one.
  std::optional<platform::URLSessionUploadTask> httpPOSTTask GUARDED_BY(mutex);
};

/// The background session of that identifier: opened, or the one that is open. What it tells goes to the engine's
/// client.
std::shared_ptr<platform::BackgroundSession> openBackgroundSession(const std::string& identifier);

/// Who this device is, for a call that may come before the registration: absent, with a line that names the call,
/// when it has to be dropped.
std::optional<Credentials> identityFor(std::string_view call);

}  // namespace tarvo
