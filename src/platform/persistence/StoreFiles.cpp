#include "platform/persistence/StoreFiles.h"

#include <sys/stat.h>

namespace tarvo::platform {

StoreFiles::StoreFiles(const std::filesystem::path& store)
    : store_{store}, log_{store.native() + "-wal"}, index_{store.native() + "-shm"} {}

StoreFiles::File StoreFiles::statusOf(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return {path};
  return {path, true, status.st_dev, status.st_ino, static_cast<std::uint64_t>(status.st_size)};
}

bool StoreFiles::isSame(const File& now, const File& known) {
  return now.isWatched && now.device == known.device && now.node == known.node;
}

void StoreFiles::remember() {
  for (File* file : {&store_, &log_, &index_}) *file = statusOf(file->path);
}

bool StoreFiles::hasIndex() {
  if (!index_.isWatched) return true;
  const File now = statusOf(index_.path);
  if (!isSame(now, index_) || now.size < index_.size) return false;
  index_.size = now.size;
  return true;
}

bool StoreFiles::areNamed(std::uint64_t& logSize) const {
  const File log = log_.isWatched ? statusOf(log_.path) : log_;
  logSize = log.size;
  return (!store_.isWatched || isSame(statusOf(store_.path), store_)) && (!log_.isWatched || isSame(log, log_));
}

}  // namespace tarvo::platform
