#include "sync/ReplyHandler.h"

#include <cerrno>
#include <filesystem>

#include <tarvo/platform/Environment.h>

#include "log/Log.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Json.h"

namespace tarvo {
namespace {

/// The name comes from the backend: it counts only as that of a log file. The store and the host's files lie there too.
void deleteConfirmedFile(const std::string& name) {
  const auto directories = platform::documentDirectories();
  if (directories.empty() || !Log::isFileName(name)) return;
  const std::filesystem::path file = directories.front() / name;
  Log::debug("LocationManager:networkManagerReceivedSomeData [net] file:", file.string());
  std::error_code error;
  if (std::filesystem::is_regular_file(std::filesystem::symlink_status(file, error)) &&
      std::filesystem::remove(file, error)) {
    Log::debug(file.string(), ": is deleted");
  } else {
    const int code = error ? error.value() : ENOENT;
    Log::debug(file.string(), ": is not deleted ", platform::posixError(code, "remove"));
  }
}

}  // namespace

void ReplyHandler::networkManagerReceivedSomeData(const std::string& data) const {
  Log::debug("LocationManager:networkManagerReceivedSomeData received data:", data);
  if (data == "File is uploaded" || data == "Files is not uploaded") {
    Log::debug("LocationManager:networkManagerReceivedSomeData [net]", data);
    return;
  }
  auto reply = platform::parseJson(data);
  if (!reply) {
    Log::error("LocationManager:networkMangerReceivedSomeData [net] cannot convert the ws's response to json");
    return;
  }
  const platform::Dictionary* dictionary = reply->asDictionary();
  if (dictionary == nullptr) return;
  // Here, unlike in the other answers, a "success" of another type is no fault: it is not the Boolean true.
  const platform::Value* success = platform::find(*dictionary, "success");
  if (success == nullptr || success->asBool() != true) return;
  const auto results = platform::findString(*dictionary, "results");
  if (!results) return;
  Log::debug("LocationManager:networkManagerReceivedSomeData [net] results:", *results);
  if (*results != "uploaded") return;
  if (const auto name = platform::findString(*dictionary, "file")) deleteConfirmedFile(*name);
}

}  // namespace tarvo
