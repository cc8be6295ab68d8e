#include "platform/persistence/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace tarvo::platform {
namespace {

/// Names the file without opening it: closing such a descriptor leaves SQLite's own locks alone, which any other
/// descriptor of the file would drop. Asking it costs a third of what asking the path does.
int handleOf(const std::string& path) { return ::open(path.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW); }

/// Whether the file still has a name; its length in `size`.
bool isNamed(int handle, std::uint64_t& size) {
  struct stat status {};
  const bool isNamed = ::fstat(handle, &status) == 0 && status.st_nlink > 0;
  size = isNamed ? static_cast<std::uint64_t>(status.st_size) : 0;
  return isNamed;
}

}  // namespace

StoreFiles::StoreFiles(const std::filesystem::path& store) : path_(store) {}

StoreFiles::~StoreFiles() {
  for (const int handle : {log_, index_})
    if (handle >= 0) ::close(handle);
}

void StoreFiles::watch() {
  struct stat status {};
  if (node_ == 0 && ::stat(path_.c_str(), &status) == 0) {
    device_ = status.st_dev;
    node_ = status.st_ino;
  }
  if (log_ < 0) log_ = handleOf(path_.native() + "-wal");
  if (index_ < 0) index_ = handleOf(path_.native() + "-shm");
  if (log_ >= 0) isNamed(log_, logSize_);
}

bool StoreFiles::hasIndex() {
  if (index_ < 0) return true;
  std::uint64_t size = 0;
  if (!isNamed(index_, size) || size < indexSize_) return false;
  indexSize_ = size;
  return true;
}

bool StoreFiles::areNamed() const {
  struct stat status {};
  if (node_ != 0 && (::stat(path_.c_str(), &status) != 0 || status.st_dev != device_ || status.st_ino != node_))
    return false;
  return log_ < 0 || isNamed(log_, logSize_);
}

}  // namespace tarvo::platform
