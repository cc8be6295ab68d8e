#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/MainQueue.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/RequestBuilder.h"

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
    std::set<std::shared_ptr<platform::BackgroundSessionDelegate>> delegates GUARDED_BY(mutex);
  };
  static Kept* kept = new Kept;
  MutexLock lock(kept->mutex);
  kept->delegates.insert(std::move(delegate));
}

/// The log files of all days but today, whoever's they are, by name. A link or a pipe of such a name is none.
std::vector<std::filesystem::path> finishedLogFiles() {
  std::vector<std::filesystem::path> files;
  const auto directories = platform::documentDirectories();
  if (directories.empty()) return files;
  const std::string today = Log::todaysFilePrefix();
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directories.front(), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::error_code unknown;
    if (Log::isFileName(name) && !name.starts_with(today) &&
        std::filesystem::is_regular_file(entry->symlink_status(unknown)))
      files.push_back(entry->path());
  }
  std::sort(files.begin(), files.end());
  return files;
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

void NetworkManager::State::didReceive(BackgroundSession&, const std::string& data) {
  // Two blanks before "mainThread".
  Log::debug("NetworkManager:URLSession:didReceiveData [net] ", " mainThread:", mainThread());
  NetworkManager self(shared_from_this());
  if (const auto receiver = self.delegate()) receiver->networkManagerReceivedSomeData(self, data);
}

void NetworkManager::State::didCompleteWithError(BackgroundSession&, const platform::URLSessionUploadTask& task,
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

void NetworkManager::State::urlSessionDidFinishEvents(BackgroundSession& session) {
  const std::string name = session.description();
  Log::debug("NetworkManager:urlSessionDidFinishEvents:beforeCompletionHandler [net] session:", name,
             " mainThread:", mainThread());
  platform::MainQueue::main().async([state = shared_from_this(), name] {
    std::vector<std::function<void()>> handlers;
    {
      MutexLock lock(state->mutex);
      handlers.swap(state->backgroundTransferCompletionHandler);
    }
    for (const auto& handler : handlers) handler();
    Log::debug("NetworkManager:urlSessionDidFinishEvents:afterCompletionHandler [net] session:", name,
               " mainThread:", mainThread());
  });
}

void NetworkManager::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                         std::function<void()> completionHandler) {
  const auto session = state_->openSession(identifier);
  // The session tells the client that opened it first, whichever this one is.
  auto& told = static_cast<State&>(session->delegate());
  if (completionHandler) {
    MutexLock lock(told.mutex);
    told.backgroundTransferCompletionHandler.push_back(std::move(completionHandler));
  }
  Log::debug("NetworkManager:handleEventsForBackgroundURLSession [net] id:", identifier,
             " rejointSession:", session->description());
  session->getAllTasks([](const auto&) {});
  session->deliverEvents();
  session->finishEvents();
}

void NetworkManager::takeUpTransfers() {
  std::shared_ptr<BackgroundSession> session;
  {
    MutexLock lock(state_->mutex);
    session = state_->backgroundSession;
  }
  session->deliverEvents();
}

void NetworkManager::recreateBackgroundSession(const std::string& identifier) {
  auto session = state_->openSession(identifier);
  Log::debug("NetworkManager:recreateBackgroundSession [net] id:", identifier,
             " createSession:", session->description());
  MutexLock lock(state_->mutex);
  state_->backgroundSession.swap(session);
}

void NetworkManager::sendLogToRemoteWebServer() {
  const auto identity = identityFor("sendLogToRemoteWebServer");
  if (!identity) return;
  std::shared_ptr<BackgroundSession> session;
  {
    MutexLock lock(state_->mutex);
    session = state_->backgroundSession;
  }
  for (const auto& file : finishedLogFiles()) {
    if (session->hasTaskFor(file)) continue;  // its upload waits or goes on: a second one would carry the same
    std::error_code error;
    const bool exists = std::filesystem::exists(file, error);
    if (exists) Log::append(std::make_shared<const std::string>(file.native()), "\r\n--boundary--\r\n");
    Log::debug("NetworkManager:sendLogToRemoteWebServer [net] logFile: ", file.string(),
               exists ? "" : " does not exist");
    auto task = session->uploadTask(buildLogUpload(state_->remoteServerURL, Settings::shared().clientID(),
                                                   {identity->userUUID, identity->userSecret}),
                                    file);
    {
      MutexLock lock(state_->mutex);
      state_->httpPOSTTask = task;
    }
    // Behind the boundary, or the body could be sent without its end.
    Log::serialQueue().async([session, task = std::move(task)] { session->resume(task); });
  }
}

}  // namespace tarvo
