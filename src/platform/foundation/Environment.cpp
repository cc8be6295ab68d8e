#include <tarvo/platform/Environment.h>

#include <tarvo/platform/SystemLog.h>

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "platform/foundation/Bundle.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/HomeErasure.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

struct Environment {
  Mutex mutex;
  std::optional<fs::path> home GUARDED_BY(mutex);
  bool homeWasAskedFor GUARDED_BY(mutex) = false;
  HostInfo info GUARDED_BY(mutex);
  bool infoWasAskedFor GUARDED_BY(mutex) = false;
  std::optional<std::vector<fs::path>> documents GUARDED_BY(mutex);
  bool reported GUARDED_BY(mutex) = false;
};

Environment& environment() {
  static Environment* environment = new Environment;
  return *environment;
}

// Made absolute, so that it means the same after a change of the working directory.
fs::path anchored(const fs::path& path) {
  std::error_code failure;
  fs::path absolute = fs::absolute(path, failure);
  return failure ? path : absolute.lexically_normal();
}

/// The user's home directory: `$HOME`, else the one of the user database.
fs::path userDirectory() {
  if (const char* home = ::getenv("HOME"); home != nullptr && *home == '/') return home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr)
    return found->pw_dir;
  return "/";
}

fs::path defaultHome() {
  const char* data = ::getenv("XDG_DATA_HOME");
  const bool usable = data != nullptr && *data == '/';
  const fs::path base = usable ? fs::path(data) : userDirectory() / ".local" / "share";
  const fs::path program = executableFile().filename();
  return base / (program.empty() ? fs::path("program") : program);
}

std::vector<fs::path> chosenDocumentDirectories() {
  {
    MutexLock lock(environment().mutex);
    if (environment().documents) return *environment().documents;
  }
  return {homeDirectory() / "Documents"};
}

bool setHostInfo(HostInfo info) {
  MutexLock lock(environment().mutex);
  if (environment().infoWasAskedFor) return environment().info == info;
  environment().info = std::move(info);
  return true;
}

// The directories are asked for at every log line while there is no file to write to, so a home that stays unwritable
// is told only once.
bool reportsFirst() {
  MutexLock lock(environment().mutex);
  return !std::exchange(environment().reported, true);
}

}  // namespace

bool setHomeDirectory(const fs::path& home) {
  fs::path absolute = anchored(home);
  MutexLock lock(environment().mutex);
  if (environment().homeWasAskedFor) return environment().home == absolute;
  environment().home = std::move(absolute);
  return true;
}

fs::path homeDirectory() {
  std::optional<fs::path> home;
  {
    MutexLock lock(environment().mutex);
    environment().homeWasAskedFor = true;
    home = environment().home;
  }
  if (!home) home = defaultHome();
  // Nothing of a home is read before an erasing that was cut off has been finished.
  static std::once_flag takenUp;
  std::optional<std::string> told;
  std::call_once(takenUp, [&] { told = HomeErasure::takeUp(*home); });
  if (told) NSLog(*told);
  return *home;
}

bool setInfoPropertyList(const fs::path& file) { return setHostInfo({.file = anchored(file)}); }
bool setInfoDictionary(Dictionary info) { return setHostInfo({.dictionary = std::move(info)}); }

HostInfo hostInfo() {
  {
    MutexLock lock(environment().mutex);
    environment().infoWasAskedFor = true;
    if (environment().info.dictionary || !environment().info.file.empty()) return environment().info;
    environment().homeWasAskedFor = true;
    if (environment().home) return {.file = *environment().home / "Info.plist"};
  }
  std::error_code ignored;
  fs::path beside = executableFile().parent_path() / "Info.plist";
  return {.file = fs::is_regular_file(beside, ignored) ? beside : defaultHome() / "Info.plist"};
}

std::vector<fs::path> documentDirectories() {
  std::vector<fs::path> directories = chosenDocumentDirectories();
  for (const fs::path& directory : directories) {
    const auto error = createPrivateDirectories(directory);
    if (error && reportsFirst())
      NSLog(concat("The document directory cannot be created: ", error->localizedDescription));
  }
  return directories;
}

void setDocumentDirectories(std::vector<fs::path> directories) {
  for (fs::path& directory : directories) directory = anchored(directory);
  MutexLock lock(environment().mutex);
  environment().documents = std::move(directories);
}

}  // namespace tarvo::platform
