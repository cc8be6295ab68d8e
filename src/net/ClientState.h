#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/NetworkManager.h>

#include "net/Messages.h"
#include "platform/foundation/Guarded.h"
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

  /// A complete request: `path` may carry a query. The path "users" authenticates with the API key, all others with the
  /// user, without whom this stops the process.
  platform::URLRequest request(std::string_view method, std::string_view path,
                               std::optional<std::string> body = std::nullopt) const;
  /// The same with credentials that the caller has looked for.
  platform::URLRequest requestFrom(const Credentials& credentials, std::string_view method, std::string_view path,
                                   std::optional<std::string> body = std::nullopt) const;
  /// Starts a data task of the shared session.
  void start(platform::URLRequest request, Completion completion);

  const std::string remoteServerURL;

  platform::Guarded<std::shared_ptr<NetworkManagerDelegate>> delegate;
  platform::Guarded<std::string> envir{"prod"};
  platform::Guarded<std::shared_ptr<platform::BackgroundSession>> backgroundSession;
};

/// The background session of that identifier: opened, or the one that is open. What it tells goes to the engine's
/// client.
std::shared_ptr<platform::BackgroundSession> openBackgroundSession(const std::string& identifier);

/// Who this device is, for a call that may come before the registration: absent, with a line that names the call,
/// when it has to be dropped.
std::optional<Credentials> identityFor(std::string_view call);

}  // namespace tarvo
