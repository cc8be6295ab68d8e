#include "platform/urlsession/UploadFile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "platform/urlsession/URLRequest.h"

namespace tarvo::platform {

int UploadFile::rewind() {
  offset_ = 0;
  if (descriptor_.isOpen()) return 0;
  // Without waiting: opening a pipe would hold up all transfers until somebody writes to it.
  Descriptor opened(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!opened.isOpen() || ::fstat(opened.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
  descriptor_ = std::move(opened);
  length_ = static_cast<std::uint64_t>(status.st_size);
  return 0;
}

std::optional<std::size_t> UploadFile::read(char* buffer, std::size_t size) {
  const std::size_t wanted = std::min<std::uint64_t>(size, length_ - std::min(offset_, length_));
  if (wanted == 0) return 0;
  ssize_t count;
  do {
    count = ::pread(descriptor_.get(), buffer, wanted, static_cast<off_t>(offset_));
  } while (count < 0 && errno == EINTR);
  if (count <= 0) return std::nullopt;
  offset_ += static_cast<std::size_t>(count);
  return static_cast<std::size_t>(count);
}

std::filesystem::path absolutePath(std::filesystem::path file) {
  std::error_code error;
  auto absolute = std::filesystem::absolute(file, error);
  return error ? file : absolute;
}

int UploadFile::urlErrorOf(int systemError) {
  switch (systemError) {
    case ENOENT:
    case ENOTDIR:
      return urlError::fileDoesNotExist;
    case EISDIR:
      return urlError::fileIsDirectory;
    case EACCES:
    case EPERM:
      return urlError::noPermissionsToReadFile;
    default:
      return urlError::cannotOpenFile;
  }
}

}  // namespace tarvo::platform
