#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <tarvo/NetworkManager.h>

#include "net/Reply.h"
#include "platform/foundation/Mutex.h"
#include "platform/urlsession/BackgroundSession.h"
#include "platform/urlsession/URLRequest.h"
#include "settings/Settings.h"

namespace tarvo {

/// What a client consists of, shared with its requests in flight: an answer that comes after the client is gone still
/// finds everything. The first client to open a background session is that session's delegate and stays for good.
///
/// Threads: any; host code is called with no lock held.
struct NetworkManager::State final : platform::BackgroundSessionDelegate, std::enable_shared_from_this<State> {
  /// May take out of the reply what it needs.
  using Completion = std::function<void(NetworkManager& self, Reply& reply)>;

  explicit State(std::string versionedBase);

  /// A request of the registered user; for callers that have looked for the identity.
  platform::URLRequest userRequest(const Identity& identity, std::string_view method, std::string_view path,
                                   std::optional<std::string> body = std::nullopt) const;
  /// Starts a data task of the shared session.
  void start(platform::URLRequest request, Completion completion);

  std::shared_ptr<platform::BackgroundSession> openSession(const std::string& identifier);

  void didReceive(platform::BackgroundSession& session, const std::string& data) override;
  void didCompleteWithError(platform::BackgroundSession& session, const platform::URLSessionUploadTask& task,
                            std::optional<int> statusCode, std::optional<platform::Error> error) override;
  void urlSessionDidFinishEvents(platform::BackgroundSession& session) override;

  const std::string remoteServerURL;

  platform::Mutex mutex;
  std::shared_ptr<NetworkManagerDelegate> delegate GUARDED_BY(mutex);
  std::string envir GUARDED_BY(mutex) = "prod";
  std::shared_ptr<platform::BackgroundSession> backgroundSession GUARDED_BY(mutex);
  /// The running upload of a log file, or the last one.
  std::optional<platform::URLSessionUploadTask> httpPOSTTask GUARDED_BY(mutex);
  /// One for each time that the application was woken and the events are not finished yet.
  std::vector<std::function<void()>> backgroundTransferCompletionHandler GUARDED_BY(mutex);
};

/// Who this device is, for a call that may come before the registration: absent, with a line that names the call,
/// when it has to be dropped.
std::optional<Identity> identityFor(std::string_view call);

}  // namespace tarvo
