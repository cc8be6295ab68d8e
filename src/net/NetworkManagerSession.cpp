#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <tarvo/ActivationMode.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/MainQueue.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "platform/foundation/FatalError.h"
#include "settings/EngineLink.h"

namespace tarvo {
namespace {

using platform::BackgroundSession;
using platform::MutexLock;

/// The delegate of every background session. What it hears goes to the engine's client, whichever client has opened the
/// session: the delegate of that one knows what the replies mean. Lives as long as the process.
class SessionEvents final : public platform::BackgroundSessionDelegate {
 public:
  static SessionEvents& shared() {
    static SessionEvents* events = new SessionEvents;
    return *events;
  }

  void addCompletionHandler(std::function<void()> handler) {
    MutexLock lock(mutex_);
    backgroundTransferCompletionHandler.push_back(std::move(handler));
  }

  void didReceive(BackgroundSession& session, const std::string& data) override;
  void didCompleteWithError(BackgroundSession& session, const platform::URLSessionUploadTask& task,
                            std::optional<int> statusCode, std::optional<platform::Error> error) override;
  void urlSessionDidFinishEvents(BackgroundSession& session) override;

 private:
  std::vector<std::function<void()>> takeCompletionHandlers() {
    MutexLock lock(mutex_);
    return std::exchange(backgroundTransferCompletionHandler, {});
  }

  platform::Mutex mutex_;
  /// One for each time that the application was woken and the events are not finished yet.
  std::vector<std::function<void()>> backgroundTransferCompletionHandler GUARDED_BY(mutex_);
};

void SessionEvents::didReceive(BackgroundSession&, const std::string& data) {
  // Two blanks before "mainThread".
  Log::debug("NetworkManager:URLSession:didReceiveData [net] ", " mainThread:", mainThread());
  NetworkManager& client = EngineLink::current().client();
  if (const auto receiver = client.delegate()) receiver->networkManagerReceivedSomeData(client, data);
}

void SessionEvents::didCompleteWithError(BackgroundSession&, const platform::URLSessionUploadTask& task,
                                         std::optional<int> statusCode, std::optional<platform::Error> error) {
  // An error ends here: telling the engine would stop its uploads of positions until the next launch.
  if (error) {
    Log::error("NetworkManager:URLSession [net] error:", error->localizedDescription,
               " task:<UploadTask: ", task.taskIdentifier,
               "> currentRequest:", platform::printedOptional(task.originalRequest.httpBody));
  } else if (statusCode == 200) {
    Log::debug("NetworkManager:URLSession:didCompleteWithError [net] statusCode:200");
  }
}

void SessionEvents::urlSessionDidFinishEvents(BackgroundSession& session) {
  const std::string name = session.description();
  Log::debug("NetworkManager:urlSessionDidFinishEvents:beforeCompletionHandler [net] session:", name,
             " mainThread:", mainThread());
  platform::MainQueue::main().async([this, name] {
    for (const auto& handler : takeCompletionHandlers())
      platform::callHost("the completion handler of background events", handler);
    Log::debug("NetworkManager:urlSessionDidFinishEvents:afterCompletionHandler [net] session:", name,
               " mainThread:", mainThread());
  });
}

/// In these modes nothing that an earlier process has left goes to the backend.
bool staysOnDevice(std::int64_t mode) { return mode >= mode::kLocalForeground && mode < mode::kBackendBackground; }

}  // namespace

std::shared_ptr<BackgroundSession> openBackgroundSession(const std::string& identifier) {
  platform::BackgroundSessionConfiguration configuration;
  configuration.identifier = identifier;
  configuration.discretionary = false;
  configuration.shouldUseExtendedBackgroundIdleMode = platform::UIDevice::current().hasFeaturesOfLevel9();
  return BackgroundSession::open(configuration, SessionEvents::shared());
}

void NetworkManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                         std::function<void()> completionHandler) {
  const auto session = openBackgroundSession(identifier);
  if (completionHandler) SessionEvents::shared().addCompletionHandler(std::move(completionHandler));
  Log::debug("NetworkManager:handleEventsForBackgroundURLSession [net] id:", identifier,
             " rejointSession:", session->description());
  session->getAllTasks([](const auto&) {});
  if (staysOnDevice(Settings::shared().activateStatus.get())) {
    SessionEvents::shared().urlSessionDidFinishEvents(*session);
    return;
  }
  session->deliverEvents();
  session->finishEvents();
}

void NetworkManager::takeUpTransfers() { state_->backgroundSession.get()->deliverEvents(); }

void NetworkManager::recreateBackgroundSession(const std::string& identifier) {
  auto session = openBackgroundSession(identifier);
  Log::debug("NetworkManager:recreateBackgroundSession [net] id:", identifier,
             " createSession:", session->description());
  state_->backgroundSession.set(std::move(session));
}

}  // namespace tarvo
