#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace tarvo::platform {

/// Stands under SQLite as the default file system: fails calls as told until it is healed, and writes down what changes
/// a file. SQLite's pauses before it tries a lock again take no time. Threads: one at a time.
class FaultyDisk {
 public:
  enum Call { open, read, write, sync, truncate, lock, map, mapLock, remove, access, rename };
  struct Change {
    Call call;  ///< an `open` made the file, unless it was there
    std::string file, bytes;
    std::int64_t at = 0;  ///< of a write; the new size; whether names are flushed as well
  };

  static void install() {
    if (real) return;
    real = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs disk = *real;
    disk.zName = "faulty";
    disk.xOpen = openFile;
    disk.xDelete = [](sqlite3_vfs*, const char* name, int flush) {
      const int status = failing(Call::remove) ? failed : real->xDelete(real, name, flush);
      return noted(status, {Call::remove, name, {}, flush});
    };
    disk.xAccess = [](sqlite3_vfs*, const char* name, int flags, int* out) {
      return failing(Call::access) ? failed : real->xAccess(real, name, flags, out);
    };
    disk.xSleep = [](sqlite3_vfs*, int microseconds) { return microseconds; };
    sqlite3_vfs_register(&disk, 1);
  }
  /// Lets `calls` more of that kind through, then fails the next one or each one. A read that is to give
  /// SQLITE_CORRUPT gives bytes that make no sense; not of a write-ahead log, which is taken to end there.
  static void fail(Call call, int status, std::int64_t calls = 0, bool forEver = true) {
    failingCall = call;
    failed = status;
    callsLeft = calls;
    failsForEver = forEver;
  }
  /// Lets `bytes` more through, then fails each write (disk full); the one on the border is written in part.
  static void failAfterBytes(std::int64_t bytes) { bytesLeft = bytes; }
  static void heal() {
    callsLeft = bytesLeft = kNoLimit;
    failedCalls = 0;
  }
  /// Failed calls since the last `heal`.
  static int failures() { return failedCalls; }
  /// Where to write down the changes from now on; null: nowhere.
  static void record(std::vector<Change>* changes) { recorded = changes; }

 private:
  /// The methods of a real file with some replaced.
  struct Methods : sqlite3_io_methods {
    Methods(const sqlite3_io_methods* methods, const char* path)
        : sqlite3_io_methods(*methods), real(methods), name(path ? path : "") {
      xClose = [](sqlite3_file* file) {
        const Methods* own = &of(file);
        file->pMethods = own->real;
        delete own;
        return file->pMethods->xClose(file);
      };
      xRead = [](sqlite3_file* file, void* bytes, int count, sqlite3_int64 at) {
        const bool isLog = of(file).name.ends_with("-wal");
        const bool fails = !(failed == SQLITE_CORRUPT && isLog) && failing(Call::read);
        if (fails && failed != SQLITE_CORRUPT) return failed;
        const int status = of(file).real->xRead(file, bytes, count, at);
        if (fails) std::memset(bytes, 0xff, static_cast<std::size_t>(count));
        return status;
      };
      xWrite = writeFile;
      xSync = [](sqlite3_file* file, int flags) {
        return noted(failing(Call::sync) ? failed : of(file).real->xSync(file, flags),
                     {Call::sync, of(file).name, {}, 1});
      };
      xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
        return noted(failing(Call::truncate) ? failed : of(file).real->xTruncate(file, size),
                     {Call::truncate, of(file).name, {}, size});
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
    const std::string name;
  };

  static int openFile(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    file->pMethods = nullptr;
    if (failing(Call::open)) return failed;
    const int status = real->xOpen(real, name, file, flags, outFlags);
    if (status == SQLITE_OK && file->pMethods) file->pMethods = new Methods(file->pMethods, name);
    return noted(status, {Call::open, name ? name : "", {}});
  }

  static int writeFile(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
    if (failing(Call::write)) return failed;
    const bool fits = bytesLeft >= count;
    const int written = fits ? count : static_cast<int>(bytesLeft);
    if (bytesLeft != kNoLimit) bytesLeft -= written;
    const Methods& own = Methods::of(file);
    const int status = written > 0 ? own.real->xWrite(file, bytes, written, at) : SQLITE_OK;
    if (!fits) return ++failedCalls, SQLITE_FULL;
    if (!recorded) return status;
    return noted(status, {Call::write, own.name, {static_cast<const char*>(bytes), static_cast<size_t>(count)}, at});
  }

  static bool failing(Call call) {
    if (callsLeft == kNoLimit || call != failingCall || callsLeft-- > 0) return false;
    callsLeft = failsForEver ? 0 : kNoLimit;
    return ++failedCalls > 0;
  }

  static int noted(int status, const Change& change) {
    if (recorded && status == SQLITE_OK) recorded->push_back(change);
    return status;
  }

  static constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();
  inline static sqlite3_vfs* real = nullptr;
  inline static Call failingCall = Call::open;
  inline static int failed = SQLITE_OK, failedCalls = 0;
  inline static bool failsForEver = true;
  inline static std::int64_t callsLeft = kNoLimit, bytesLeft = kNoLimit;
  inline static std::vector<Change>* recorded = nullptr;
};

}  // namespace tarvo::platform
