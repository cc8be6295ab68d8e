#pragma once

#include <sqlite3.h>

#include <cstring>
#include <limits>
#include <string_view>

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
    disk.xDelete = [](sqlite3_vfs*, const char* name, int flush) {
      return failing(remove) ? failed : real->xDelete(real, name, flush);
    };
    disk.xAccess = [](sqlite3_vfs*, const char* name, int flags, int* out) {
      return failing(access) ? failed : real->xAccess(real, name, flags, out);
    };
    disk.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
    sqlite3_vfs_register(&disk, 1);
  }
  /// Lets `calls` more of that kind through, then fails the next one or each one. A read that is to give
  /// SQLITE_CORRUPT gives bytes that make no sense; not of a write-ahead log, which is taken to end there.
  static void fail(Call call, int status, int calls = 0, bool forEver = true) {
    failingCall = call;
    failed = status;
    callsLeft = calls;
    failsForEver = forEver;
  }
  static void fill(int calls = 0) { fail(write, SQLITE_FULL, calls); }
  static void heal() {
    callsLeft = kNoLimit;
    failedCalls = 0;
  }
  /// Failed calls since the last `heal`.
  static int failures() { return failedCalls; }

 private:
  /// The methods of a real file with some replaced.
  struct Methods : sqlite3_io_methods {
    Methods(const sqlite3_io_methods* methods, std::string_view name)
        : sqlite3_io_methods(*methods), real(methods), isLog(name.ends_with("-wal")) {
      xClose = [](sqlite3_file* file) {
        const Methods* own = &of(file);
        file->pMethods = own->real;
        delete own;
        return file->pMethods->xClose(file);
      };
      xRead = [](sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
        const bool fails = !(failed == SQLITE_CORRUPT && of(file).isLog) && failing(Call::read);
        if (fails && failed != SQLITE_CORRUPT) return failed;
        const int status = of(file).real->xRead(file, bytes, count, at);
        if (fails) std::memset(bytes, 0xff, static_cast<std::size_t>(count));
        return status;
      };
      xWrite = [](sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
        return failing(Call::write) ? failed : of(file).real->xWrite(file, bytes, count, at);
      };
      xSync = [](sqlite3_file* file, int flags) {
        return failing(Call::sync) ? failed : of(file).real->xSync(file, flags);
      };
      xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
        return failing(Call::truncate) ? failed : of(file).real->xTruncate(file, size);
      };
      xLock = [](sqlite3_file* file, int level) {
        return failing(Call::lock) ? failed : of(file).real->xLock(file, level);
      };
      xShmMap = [](sqlite3_file* file, int page, int size, int extend, void volatile** out) {
        return failing(Call::map) ? failed : of(file).real->xShmMap(file, page, size, extend, out);
      };
      xShmLock = [](sqlite3_file* file, int offset, int count, int flags) {
        const bool fails = (flags & SQLITE_SHM_LOCK) != 0 && failing(Call::mapLock);
        return fails ? failed : of(file).real->xShmLock(file, offset, count, flags);
      };
    }
    static const Methods& of(sqlite3_file* file) { return *static_cast<const Methods*>(file->pMethods); }
    const sqlite3_io_methods* real;
    const bool isLog;
  };

  static int openFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    if (failing(open)) return failed;
    const int status = real->xOpen(real, name, file, flags, outFlags);
    if (status == SQLITE_OK && file->pMethods) file->pMethods = new Methods(file->pMethods, name ? name : "");
    return status;
  }

  static bool failing(Call call) {
    if (callsLeft == kNoLimit || call != failingCall || callsLeft-- > 0) return false;
    callsLeft = failsForEver ? 0 : kNoLimit;
    return ++failedCalls > 0;
  }

  static constexpr int kNoLimit = std::numeric_limits<int>::max();
  inline static sqlite3_vfs* real = nullptr;
  inline static Call failingCall = open;
  inline static int failed = SQLITE_OK, failedCalls = 0, callsLeft = kNoLimit;
  inline static bool failsForEver = true;
};

}  // namespace tarvo::platform
