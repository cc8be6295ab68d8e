#include "platform/persistence/StoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
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

struct StoreFiles::Watched {
  explicit Watched(const std::filesystem::path& file) : path(file) {}
  ~Watched() {
    for (const int handle : {store, log, index})
      if (handle >= 0) ::close(handle);
  }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  bool isInPlace();

  const std::filesystem::path path;
  std::uint64_t device = 0, node = 0;              ///< of the store
  std::chrono::steady_clock::time_point looked{};  ///< at the path, last
  int store = -1;
  int log = -1;
  int index = -1;
  std::uint64_t indexSize = 0;
  std::uint64_t logSize = 0;
};

bool StoreFiles::Watched::isInPlace() {
  const auto now = std::chrono::steady_clock::now();
  if (now - looked < kBetweenLooks) return true;
  looked = now;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && status.st_dev == device && status.st_ino == node;
}

StoreFiles::StoreFiles(const std::filesystem::path& store) : watched_(std::make_unique<Watched>(store)) {}
StoreFiles::~StoreFiles() = default;

void StoreFiles::watch() {
  Watched& files = *watched_;
  if (files.store < 0) {
    files.store = handleOf(files.path.native(), 0);
    struct stat status {};
    if (files.store >= 0 && ::fstat(files.store, &status) == 0) {
      files.device = status.st_dev;
      files.node = status.st_ino;
    }
  }
  if (files.log < 0) files.log = handleOf(files.path.native() + "-wal");
  if (files.index < 0) files.index = handleOf(files.path.native() + "-shm");
  if (files.log >= 0) isNamed(files.log, files.logSize);
}

bool StoreFiles::hasIndex() {
  Watched& files = *watched_;
  if (files.index < 0) return true;
  std::uint64_t size = 0;
  if (!isNamed(files.index, size) || size < files.indexSize) return false;
  files.indexSize = size;
  return true;
}

bool StoreFiles::areNamed() {
  Watched& files = *watched_;
  std::uint64_t size = 0;
  if (files.store < 0 || files.log < 0 || files.index < 0) watch();  // there may have been no descriptor
  if (files.store >= 0 && (!isNamed(files.store, size) || !files.isInPlace())) return false;
  return files.log < 0 || isNamed(files.log, files.logSize);
}

bool StoreFiles::watchesLog() const { return watched_->log >= 0; }
std::uint64_t StoreFiles::logSize() const { return watched_->logSize; }

}  // namespace tarvo::platform
