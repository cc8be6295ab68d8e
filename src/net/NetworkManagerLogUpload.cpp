#include <algorithm>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>
#include <vector>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Environment.h>

#include "log/Log.h"
#include "log/LogFile.h"
#include "net/ClientState.h"
#include "platform/foundation/FaultPoint.h"

namespace tarvo {
namespace {

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

void NetworkManager::sendLogToRemoteWebServer() {
  const auto identity = identityFor("sendLogToRemoteWebServer");
  if (!identity) return;
  const auto session = state_->backgroundSession.get();
  for (const auto& file : finishedLogFiles()) {
    if (session->hasTaskFor(file)) continue;  // its upload waits or goes on: a second one would carry the same
    std::error_code error;
    const bool exists = std::filesystem::exists(file, error);
    if (exists) appendToLogFile(std::make_shared<const std::string>(file.native()), {"\r\n--boundary--\r\n"});
    platform::faultPoint("log upload: boundary queued");
    Log::debug("NetworkManager:sendLogToRemoteWebServer [net] logFile: ", file.string(),
               exists ? "" : " does not exist");
    auto httpPOSTTask =
        session->uploadTask(buildLogUpload(state_->remoteServerURL, Settings::shared().clientID(), *identity), file);
    platform::faultPoint("log upload: task made");
    // Behind the boundary, or the body could be sent without its end.
    Log::serialQueue().async([session, httpPOSTTask = std::move(httpPOSTTask)] { session->resume(httpPOSTTask); });
  }
}

}  // namespace tarvo
