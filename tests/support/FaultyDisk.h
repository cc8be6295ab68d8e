#pragma once

#include <sqlite3.h>

#include <cstring>
#include <limits>

namespace tarvo::platform {

/// Stands under SQLite as the default file system and fails calls as told until it is healed. SQLite's pauses before
/// it tries a lock again take no time. Threads: one at a time.
class FaultyDisk {
 public:
  enum Call { open, read, write, sync, truncate, lock, map, mapLock, remove, access };

  static void install() {
    if (real) return;
    real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs disk = *real;
    disk.zName = "faulty";
    disk.xOpen = openFile;
    disk.xDelete = failingOr<remove, &sqlite3_vfs::xDelete>;
    disk.xAccess = failingOr<access, &sqlite3_vfs::xAccess>;
    disk.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
    sqlite3_vfs_register(&disk, 1);
  }
  /// Lets `calls` more of that kind through, then fails the next one or each one. A read that is to give
  /// SQLITE_CORRUPT gives bytes that make no sense; not of a log, which is taken to end there.
  static void fail(Call call, int status, int calls = 0, bool forEver = true) {
    failingCall = call, failed = status, callsLeft = calls, failsForEver = forEver;
  }
  static void fill() { fail(write, SQLITE_FULL); }
  static void heal() { callsLeft = kNoLimit, failedCalls = 0; }
  /// Failed calls since the last `heal`.
  static int failures() { return failedCalls; }

 private:
  /// SQLite has other methods for a database than for the logs beside it.
  static int kindOf(sqlite3_file* file) { return file->pMethods == &faulty[1] ? 1 : 0; }
  static const sqlite3_io_methods& soundOf(sqlite3_file* file) { return *sound[kindOf(file)]; }
  static const sqlite3_vfs& soundOf(sqlite3_vfs*) { return *real; }

  template <Call call, auto method, class Object, class... Rest>
  static int failingOr(Object* object, Rest... rest) {
    return failing(call) ? failed : (soundOf(object).*method)(object, rest...);
  }
  static int readFile(sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
    const bool fails = !(failed == SQLITE_CORRUPT && kindOf(file) == 1) && failing(read);
    if (fails && failed != SQLITE_CORRUPT) return failed;
    const int status = soundOf(file).xRead(file, bytes, count, at);
    if (fails) std::memset(bytes, 0xff, static_cast<std::size_t>(count));
    return status;
  }
  static int lockMap(sqlite3_file* file, int offset, int count, int flags) {
    const bool fails = (flags & SQLITE_SHM_LOCK) != 0 && failing(mapLock);
    return fails ? failed : soundOf(file).xShmLock(file, offset, count, flags);
  }
  static int openFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    if (failing(open)) return failed;
    const int status = real->xOpen(real, name, file, flags, outFlags);
    if (status != SQLITE_OK || !file->pMethods) return status;
    const int kind = (flags & SQLITE_OPEN_MAIN_DB) != 0 ? 0 : 1;
    sound[kind] = file->pMethods;
    sqlite3_io_methods& own = faulty[kind] = *file->pMethods;
    own.xRead = readFile;
    own.xWrite = failingOr<write, &sqlite3_io_methods::xWrite>;
    own.xSync = failingOr<sync, &sqlite3_io_methods::xSync>;
    own.xTruncate = failingOr<truncate, &sqlite3_io_methods::xTruncate>;
    own.xLock = failingOr<lock, &sqlite3_io_methods::xLock>;
    own.xShmMap = failingOr<map, &sqlite3_io_methods::xShmMap>;
    own.xShmLock = lockMap;
    file->pMethods = &own;
    return status;
  }

  static bool failing(Call call) {
    if (callsLeft == kNoLimit || call != failingCall || callsLeft-- > 0) return false;
    callsLeft = failsForEver ? 0 : kNoLimit;
    return ++failedCalls > 0;
  }

  static constexpr int kNoLimit = std::numeric_limits<int>::max();
  inline static sqlite3_vfs* real = nullptr;
  inline static const sqlite3_io_methods* sound[2] = {};
  inline static sqlite3_io_methods faulty[2];
  inline static Call failingCall = open;
  inline static int failed = SQLITE_OK, failedCalls = 0, callsLeft = kNoLimit;
  inline static bool failsForEver = true;
};

}  // namespace tarvo::platform
