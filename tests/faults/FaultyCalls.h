#pragma once

// Takes the place of the system's calls for the whole program, its libraries too: for the one source of a driver.

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace tarvo::faults {

/// What changes a file or its name.
struct Change {
  enum Call { none, sync, write, truncate, make, rename, remove };
  Call call;               ///< `make` made the file, unless it was there
  std::string file;        ///< or the folder whose names are flushed
  std::string bytes = {};  ///< or the new name
  std::int64_t at = 0;     ///< of a write; the new size
};

/// Fails the calls that touch the files below a folder, and writes down what changes them. Threads: one at a time.
struct FaultyCalls {
  inline static std::string folder;      ///< empty: all calls pass
  inline static std::int64_t left = -1;  ///< calls that go through before one fails; below 0: none fails
  inline static int error = 0, failed = 0;
  inline static bool forEver = true;
  inline static std::vector<Change>* recorded = nullptr;

  static std::string pathOf(int descriptor) {
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = folder.empty() ? 0 : ::readlink(link.c_str(), path, sizeof path);
    return {path, static_cast<std::size_t>(length < 0 ? 0 : length)};
  }
  /// What the system answers, or a failure; the change is written down once it is made. What a file whose name says
  /// that it is for running processes holds is of no use after a power cut.
  static int run(Change change, long number, auto... arguments) {
    const bool isBelow = !folder.empty() && change.file.starts_with(folder);
    if (isBelow && left >= 0 && left-- == 0) {
      left = forEver ? 0 : -1;
      ++failed;
      errno = error;
      return -1;
    }
    const auto result = static_cast<int>(::syscall(number, arguments...));
    const bool isLeft = !change.file.ends_with("-shm") && !change.file.ends_with(".lock");
    if (isBelow && recorded && result >= 0 && change.call != Change::none && isLeft)
      recorded->push_back(std::move(change));
    return result;
  }
  /// One that is to fail takes half of the bytes as long as there are some, as a disk does that fills.
  static ssize_t write(int file, const void* bytes, std::size_t count, long number, auto... at) {
    struct stat status {};
    const std::string path = pathOf(file);
    if (path.empty() || ::fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || !path.starts_with(folder))
      return ::syscall(number, file, bytes, count, at...);
    if (left == 0 && count > 1) return ::syscall(number, file, bytes, count / 2, at...);
    const std::string text(static_cast<const char*>(bytes), count);
    const std::int64_t places[] = {at..., status.st_size};
    return run({Change::write, path, text, places[0]}, number, file, bytes, count, at...);
  }
};

}  // namespace tarvo::faults

using tarvo::faults::Change, tarvo::faults::FaultyCalls;

#pragma GCC visibility push(default)  // for the libraries
extern "C" {
int fsync(int file) { return FaultyCalls::run({Change::sync, FaultyCalls::pathOf(file)}, SYS_fsync, file); }
int fdatasync(int file) { return fsync(file); }
ssize_t write(int file, const void* bytes, size_t count) { return FaultyCalls::write(file, bytes, count, SYS_write); }
ssize_t pwrite64(int file, const void* bytes, size_t count, off64_t at) {
  return FaultyCalls::write(file, bytes, count, SYS_pwrite64, at);
}
int ftruncate(int file, off_t size) noexcept {
  return FaultyCalls::run({Change::truncate, FaultyCalls::pathOf(file), {}, size}, SYS_ftruncate, file, size);
}
int ftruncate64(int file, off64_t size) noexcept { return ftruncate(file, size); }
int rename(const char* from, const char* to) noexcept {
  return FaultyCalls::run({Change::rename, from, to}, SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0);
}
int unlink(const char* name) noexcept {
  return FaultyCalls::run({Change::remove, name}, SYS_unlinkat, AT_FDCWD, name, 0);
}
int open(const char* name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
  va_end(rest);
  const auto call = (flags & O_CREAT) != 0 ? Change::make : Change::none;
  return FaultyCalls::run({call, name}, SYS_openat, AT_FDCWD, name, flags, mode);
}
int open64(const char* name, int flags, ...) __attribute__((alias("open")));
int mkostemp(char* name, int flags) {
  static int made = 0;
  std::snprintf(name + std::strlen(name) - 6, 7, "%06d", made++);
  return open(name, flags | O_RDWR | O_CREAT | O_EXCL, 0600);
}
}
#pragma GCC visibility pop
