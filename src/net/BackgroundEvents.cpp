#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/MainQueue.h>

#include "log/Log.h"
#include "net/ClientState.h"

namespace tarvo {
namespace {

using platform::BackgroundSession;
using platform::MutexLock;

/// From here on sessions know the extended idle mode.
constexpr int kLevelWithExtendedIdle = 9;

/// A session keeps its first delegate as long as the process lives, and delegates must outlive their sessions.
void keepForGood(std::shared_ptr<platform::BackgroundSessionDelegate> delegate) {
  struct Kept {
    platform::Mutex mutex;
    std::vector<std::shared_ptr<platform::BackgroundSessionDelegate>> delegates GUARDED_BY(mutex);
  };
  static Kept* kept = new Kept;
  MutexLock lock(kept->mutex);
  kept->delegates.push_back(std::move(delegate));
}

}  // namespace

std::shared_ptr<BackgroundSession> NetworkManager::State::openSession(const std::string& identifier) {
  platform::BackgroundSessionConfiguration configuration;
  configuration.identifier = identifier;
  configuration.discretionary = false;
  configuration.shouldUseExtendedBackgroundIdleMode =
      platform::UIDevice::current().platformLevel() >= kLevelWithExtendedIdle;
  auto session = BackgroundSession::open(configuration, *this);
  if (&session->delegate() == this) keepForGood(shared_from_this());
  return session;
}

void NetworkManager::State::didReceiveData(BackgroundSession&, const std::string& data) {
  // Two blanks before "mainThread".
  Log::debug("NetworkManager:URLSession:didReceiveData [net] ", " mainThread:", mainThread());
  NetworkManager self(shared_from_this());
  if (const auto receiver = self.delegate()) receiver->networkManagerReceivedSomeData(self, data);
}

void NetworkManager::State::didComplete(BackgroundSession&, const platform::URLSessionUploadTask& task,
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

void NetworkManager::State::didFinishEvents(BackgroundSession& session) {
  const std::string name = session.description();
  Log::debug("NetworkManager:urlSessionDidFinishEvents:beforeCompletionHandler [net] session:", name,
             " mainThread:", mainThread());
  platform::MainQueue::main().async([state = shared_from_this(), name] {
    std::function<void()> handler;
    {
      MutexLock lock(state->mutex);
      handler = std::exchange(state->backgroundTransferCompletionHandler, nullptr);
    }
    if (handler) handler();
    Log::debug("NetworkManager:urlSessionDidFinishEvents:afterCompletionHandler [net] session:", name,
               " mainThread:", mainThread());
  });
}

void NetworkManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                         std::function<void()> completionHandler) {
  {
    MutexLock lock(state_->mutex);
    // The one before goes after the lock is free: it may hold the host's objects.
    state_->backgroundTransferCompletionHandler.swap(completionHandler);
  }
  const auto session = state_->openSession(identifier);
  Log::debug("NetworkManager:handleEventsForBackgroundURLSession [net] id:", identifier,
             " rejointSession:", session->description());
  // Sessions carry no transfers yet, so nothing is left whose end would finish the events.
  state_->didFinishEvents(*session);
}

void NetworkManager::recreateBackgroundSession(const std::string& identifier) {
  auto session = state_->openSession(identifier);
  Log::debug("NetworkManager:recreateBackgroundSession [net] id:", identifier,
             " createSession:", session->description());
  MutexLock lock(state_->mutex);
  state_->backgroundSession.swap(session);
}

void NetworkManager::sendLogToRemoteWebServer() {
  if (!identityFor("sendLogToRemoteWebServer")) return;
}

}  // namespace tarvo
