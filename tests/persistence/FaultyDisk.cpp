#include "persistence/FaultyDisk.h"

#include <sqlite3.h>

#include <limits>
#include <map>

namespace tarvo::platform {
namespace {

constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

std::int64_t callsLeft = kNoLimit;
std::int64_t bytesLeft = kNoLimit;
int failedCalls = 0;

/// The methods of a real file with some replaced.
struct Methods : sqlite3_io_methods {
  const sqlite3_io_methods* real = nullptr;
};

const sqlite3_io_methods* realMethods(sqlite3_file* file) { return static_cast<const Methods*>(file->pMethods)->real; }

bool callFails() {
  if (callsLeft > 0) {
    if (callsLeft != kNoLimit) --callsLeft;
    return false;
  }
  ++failedCalls;
  return true;
}

int faultyWrite(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
  if (callFails()) return SQLITE_IOERR_WRITE;
  if (bytesLeft < count) {
    ++failedCalls;
    if (bytesLeft > 0) realMethods(file)->xWrite(file, bytes, static_cast<int>(bytesLeft), offset);
    bytesLeft = 0;
    return SQLITE_FULL;
  }
  if (bytesLeft != kNoLimit) bytesLeft -= count;
  return realMethods(file)->xWrite(file, bytes, count, offset);
}

int faultySync(sqlite3_file* file, int flags) {
  return callFails() ? SQLITE_IOERR_FSYNC : realMethods(file)->xSync(file, flags);
}

int faultyTruncate(sqlite3_file* file, sqlite3_int64 size) {
  return callFails() ? SQLITE_IOERR_TRUNCATE : realMethods(file)->xTruncate(file, size);
}

sqlite3_vfs* realDisk = nullptr;

int faultyOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
  static std::map<const sqlite3_io_methods*, Methods> replaced;
  const int status = realDisk->xOpen(realDisk, name, file, flags, outFlags);
  if (status != SQLITE_OK || !file->pMethods) return status;
  auto [entry, isNew] = replaced.try_emplace(file->pMethods);
  if (isNew) {
    static_cast<sqlite3_io_methods&>(entry->second) = *file->pMethods;
    entry->second.real = file->pMethods;
    entry->second.xWrite = faultyWrite;
    entry->second.xSync = faultySync;
    entry->second.xTruncate = faultyTruncate;
  }
  file->pMethods = &entry->second;
  return status;
}

}  // namespace

void FaultyDisk::install() {
  if (realDisk) return;
  realDisk = sqlite3_vfs_find(nullptr);
  static sqlite3_vfs disk;
  disk = *realDisk;
  disk.zName = "faulty";
  disk.xOpen = faultyOpen;
  sqlite3_vfs_register(&disk, 1);
}

void FaultyDisk::failAfterCalls(std::int64_t calls) { callsLeft = calls; }
void FaultyDisk::failAfterBytes(std::int64_t bytes) { bytesLeft = bytes; }
int FaultyDisk::failures() { return failedCalls; }

void FaultyDisk::heal() {
  callsLeft = kNoLimit;
  bytesLeft = kNoLimit;
  failedCalls = 0;
}

}  // namespace tarvo::platform
