#include "platform/persistence/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace tarvo::platform {
namespace {

/// Names the file without opening it: closing such a descriptor leaves SQLite's own locks alone, which any other
/// descriptor of the file would drop.
int handleOf(const std::string& path, int flags = O_NOFOLLOW) {
  return ::open(path.c_str(), O_PATH | O_CLOEXEC | flags);
}

/// Looking a path up costs three times what asking a handle does.
constexpr std::chrono::seconds kBetweenLooks{1};

/// Whether the file still has a name; its length in `size`. The times are not asked for: a file system that has told
/// them must write the inode anew with the next change of the file, which is each commit.
bool isNamed(int handle, std::uint64_t& size) {
  struct statx status {};
  const bool isNamed =
      ::statx(handle, "", AT_EMPTY_PATH, STATX_NLINK | STATX_SIZE, &status) == 0 && status.stx_nlink > 0;
  size = isNamed ? status.stx_size : 0;
  return isNamed;
}

}  // namespace

StoreFiles::StoreFiles(const std::filesystem::path& store) : path_(store) {}

StoreFiles::~StoreFiles() {
  for (const int handle : {store_, log_, index_})
    if (handle >= 0) ::close(handle);
}

void StoreFiles::watch() {
  if (store_ < 0) {
    store_ = handleOf(path_.native(), 0);
    struct stat status {};
    if (store_ >= 0 && ::fstat(store_, &status) == 0) {
      device_ = status.st_dev;
      node_ = status.st_ino;
    }
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

bool StoreFiles::areNamed() {
  std::uint64_t size = 0;
  if (store_ < 0 || log_ < 0 || index_ < 0) watch();  // there may have been no descriptor
  if (store_ >= 0 && (!isNamed(store_, size) || !isInPlace())) return false;
  return log_ < 0 || isNamed(log_, logSize_);
}

bool StoreFiles::isInPlace() {
  const auto now = std::chrono::steady_clock::now();
  if (now - looked_ < kBetweenLooks) return true;
  looked_ = now;
  struct stat status {};
  return ::stat(path_.c_str(), &status) == 0 && status.st_dev == device_ && status.st_ino == node_;
}

}  // namespace tarvo::platform
