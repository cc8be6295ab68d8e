#include "sandbox/store/LogFolder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "sandbox/wire/BoundedJson.h"

namespace tarvo::sandbox {
namespace {

[[noreturn]] void fail(const std::filesystem::path& file) {
  throw std::system_error(errno, std::generic_category(), file.string());
}

void writeThrough(const std::filesystem::path& file, std::string_view content) {
  const int descriptor = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (descriptor < 0) fail(file);
  ssize_t written = 0;
  while (!content.empty() && ((written = ::write(descriptor, content.data(), content.size())) >= 0 || errno == EINTR))
    content.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  const bool done = content.empty() && ::fsync(descriptor) == 0;
  const int why = errno;
  ::close(descriptor);
  errno = why;
  if (!done) fail(file);
}

}  // namespace

void LogFolder::keep(const std::string& user, std::string_view file, std::string_view content) {
  const std::lock_guard lock(mutex_);
  if (std::filesystem::create_directories(folder_))
    std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
  std::filesystem::create_directory(folder_ / user);
  // No user and no upload can bear such a name. Processes that share the folder do not share this one.
  const std::filesystem::path incoming = folder_ / ("..incoming-" + std::to_string(::getpid()));
  writeThrough(incoming, content);
  std::filesystem::rename(incoming, folder_ / user / file);
}

std::optional<std::string> LogFolder::read(const std::string& user, const std::string& file) const {
  auto content = readRegularFile(folder_ / user / file);
  return content ? content : readRegularFile(folder_ / file);
}

}  // namespace tarvo::sandbox
