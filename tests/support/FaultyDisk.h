#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <map>

namespace tarvo::platform {

/// Stands under SQLite as the default file system and fails writes and flushes as told. The faults last until
/// `heal`. Threads: one.
class FaultyDisk {
 public:
  static void install() {
    if (real) return;
    real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs disk = *real;
    disk.zName = "faulty";
    disk.xOpen = open;
    sqlite3_vfs_register(&disk, 1);
  }
  /// Lets `calls` more writes, flushes and truncations through, then fails each one (input/output error).
  static void failAfterCalls(std::int64_t calls) { callsLeft = calls; }
  /// Lets `bytes` more through, then fails each write (disk full); the one on the border is written in part.
  static void failAfterBytes(std::int64_t bytes) { bytesLeft = bytes; }
  static void heal() {
    callsLeft = bytesLeft = kNoLimit;
    failedCalls = 0;
  }
  /// Failed calls since the last `heal`.
  static int failures() { return failedCalls; }

 private:
  /// The methods of a real file with some replaced.
  struct Methods : sqlite3_io_methods {
    explicit Methods(const sqlite3_io_methods* of) : sqlite3_io_methods(*of), real(of) {
      xWrite = write;
      xSync = [](sqlite3_file* file, int flags) {
        return callFails() ? SQLITE_IOERR_FSYNC : methodsOf(file)->xSync(file, flags);
      };
      xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
        return callFails() ? SQLITE_IOERR_TRUNCATE : methodsOf(file)->xTruncate(file, size);
      };
    }
    const sqlite3_io_methods* real;
  };

  static const sqlite3_io_methods* methodsOf(sqlite3_file* file) {
    return static_cast<const Methods*>(file->pMethods)->real;
  }

  static int open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    static std::map<const sqlite3_io_methods*, Methods> replaced;
    const int status = real->xOpen(real, name, file, flags, outFlags);
    if (status == SQLITE_OK && file->pMethods)
      file->pMethods = &replaced.try_emplace(file->pMethods, file->pMethods).first->second;
    return status;
  }

  static bool callFails() {
    if (callsLeft == 0) return ++failedCalls > 0;
    if (callsLeft != kNoLimit) --callsLeft;
    return false;
  }

  static int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 offset) {
    if (callFails()) return SQLITE_IOERR_WRITE;
    const bool fits = bytesLeft >= count;
    const int written = fits ? count : static_cast<int>(bytesLeft);
    if (bytesLeft != kNoLimit) bytesLeft -= written;
    const int status = written > 0 ? methodsOf(file)->xWrite(file, bytes, written, offset) : SQLITE_OK;
    if (!fits) ++failedCalls;
    return fits ? status : SQLITE_FULL;
  }

  static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();
  inline static sqlite3_vfs* real = nullptr;
  inline static std::int64_t callsLeft = kNoLimit, bytesLeft = kNoLimit;
  inline static int failedCalls = 0;
};

/// How often `goesThrough` fails before it no longer does, with a fault that each time comes one step later.
inline int failuresUntilDone(const std::function<bool(int nth)>& goesThrough) {
  for (int nth = 0; nth < 200; ++nth) {
    SCOPED_TRACE(nth);
    if (goesThrough(nth)) return nth;
  }
  ADD_FAILURE() << "it never goes through";
  return 0;
}

}  // namespace tarvo::platform
