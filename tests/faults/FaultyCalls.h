#pragma once

// Takes the place of the system's calls for the whole program: for the one source of a driver.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "support/FaultyDisk.h"

namespace tarvo::faults {

/// Fails the calls that touch the files below a folder, and writes down what changes them. Threads: one at a time.
struct FaultyCalls {
  inline static std::string folder;      ///< empty: all calls pass
  inline static std::int64_t left = -1;  ///< calls that go through before one fails; below 0: none fails
  inline static int error = 0, failed = 0;
  inline static bool forEver = true;
  inline static std::vector<platform::FaultyDisk::Change>* recorded = nullptr;

  static std::string pathOf(int descriptor) {
    char path[4096];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return {path, static_cast<std::size_t>(length < 0 ? 0 : length)};
  }
  /// What the system answers, or a failure; the change is written down once it is made.
  static int run(platform::FaultyDisk::Change change, const auto& call) {
    if (folder.empty() || !change.file.starts_with(folder)) return static_cast<int>(call());
    if (left >= 0 && left-- == 0) {
      left = forEver ? 0 : -1;
      ++failed;
      errno = error;
      return -1;
    }
    const auto result = static_cast<int>(call());
    if (recorded && result >= 0 && change.call != platform::FaultyDisk::read) recorded->push_back(std::move(change));
    return result;
  }
};

}  // namespace tarvo::faults

using tarvo::faults::FaultyCalls;
using tarvo::platform::FaultyDisk;

extern "C" {
int fsync(int file) {
  const auto call = [&] { return ::syscall(SYS_fsync, file); };
  return FaultyCalls::run({FaultyDisk::sync, FaultyCalls::pathOf(file), {}}, call);
}
ssize_t write(int file, const void* bytes, size_t count) {
  const auto call = [&] { return ::syscall(SYS_write, file, bytes, count); };
  struct stat status {};
  if (FaultyCalls::folder.empty() || ::fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return call();
  const char* text = static_cast<const char*>(bytes);
  return FaultyCalls::run({FaultyDisk::write, FaultyCalls::pathOf(file), {text, count}, status.st_size}, call);
}
int ftruncate(int file, off_t size) noexcept {
  const auto call = [&] { return ::syscall(SYS_ftruncate, file, size); };
  return FaultyCalls::run({FaultyDisk::truncate, FaultyCalls::pathOf(file), {}, size}, call);
}
int rename(const char* from, const char* to) noexcept {
  const auto call = [&] { return ::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0); };
  return FaultyCalls::run({FaultyDisk::rename, from, to}, call);
}
int unlink(const char* name) noexcept {
  const auto call = [&] { return ::syscall(SYS_unlinkat, AT_FDCWD, name, 0); };
  return FaultyCalls::run({FaultyDisk::remove, name, {}}, call);
}
int open(const char* name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
  va_end(rest);
  const auto call = [&] { return ::syscall(SYS_openat, AT_FDCWD, name, flags, mode); };
  const bool makes = (flags & O_CREAT) != 0;
  return FaultyCalls::run({makes ? FaultyDisk::open : FaultyDisk::read, name, {}}, call);
}
int mkostemp(char* name, int flags) {
  const std::string folder = std::filesystem::path(name).parent_path();
  const auto make = reinterpret_cast<int (*)(char*, int)>(::dlsym(RTLD_NEXT, "mkostemp"));
  const int file = FaultyCalls::run({FaultyDisk::read, folder + "/", {}}, [&] { return make(name, flags); });
  if (FaultyCalls::recorded && !FaultyCalls::folder.empty() && file >= 0)
    FaultyCalls::recorded->push_back({FaultyDisk::open, name, {}});
  return file;
}
}
