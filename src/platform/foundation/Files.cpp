#include "platform/foundation/Files.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <system_error>
#include <utility>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/System.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

// A file system that cannot flush a directory (EINVAL) has nothing to flush there.
bool flushDirectory(const fs::path& directory) {
  Descriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return descriptor.isOpen() && (::fsync(descriptor.get()) == 0 || errno == EINVAL);
}

fs::path directoryOf(const fs::path& file) { return file.has_parent_path() ? file.parent_path() : fs::path("."); }

constexpr std::string_view kTemporaryPrefix = ".writing-";
constexpr std::string_view kTemporaryEnd = "XXXXXX";  ///< for `makeTemporaryFile`

/// A new temporary file, locked for as long as it is open: what is not locked belongs to nobody any more.
/// `name` is the path with six X at its end, which are replaced.
Descriptor createTemporary(std::string& name) {
  const std::string pattern = name;
  for (;;) {
    name = pattern;
    Descriptor created(makeTemporaryFile(name));
    if (!created.isOpen()) return created;
    // Somebody who clears the directory may have been faster than the lock; then another name is taken. A file system
    // without locks has nobody who clears.
    struct stat status {};
    if (!tryLockFile(created.get()) && errno == EWOULDBLOCK) continue;
    if (::fstat(created.get(), &status) != 0 || status.st_nlink > 0) return created;
  }
}

/// A fault point in the midst of a condition.
bool reached(const char* place) {
  faultPoint(place);
  return true;
}

/// A process clears each directory once, when it first writes there.
void clearOnce(const fs::path& directory) {
  struct Cleared {
    Mutex mutex;
    std::set<fs::path> directories GUARDED_BY(mutex);
  };
  static auto* cleared = new Cleared;
  {
    MutexLock lock(cleared->mutex);
    if (!cleared->directories.insert(directory).second) return;
  }
  removeAbandonedWrites(directory);
}

}  // namespace

bool writeAll(const Descriptor& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(file.get(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

Error posixError(int code, std::string_view what) {
  return Error{.domain = "NSPOSIXErrorDomain",
               .code = code,
               .localizedDescription = concat(what, ": ", std::generic_category().message(code))};
}

Result<std::string> readFile(const fs::path& file) {
  // A pipe without a writer is not waited for: it is no file.
  const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!descriptor.isOpen() || ::fstat(descriptor.get(), &status) != 0) return posixError(errno, file.native());
  if (!S_ISREG(status.st_mode)) return posixError(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, file.native());
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(status.st_size));
  char buffer[16384];
  for (;;) {
    const ssize_t count = ::read(descriptor.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return posixError(errno, file.native());
    if (count == 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(count));
  }
}

std::optional<Error> writeFileAtomically(const fs::path& file, std::string_view bytes, bool durable) {
  clearOnce(directoryOf(file));
  std::string temporary = (directoryOf(file) / concat(kTemporaryPrefix, kTemporaryEnd)).native();
  Descriptor descriptor = createTemporary(temporary);
  if (!descriptor.isOpen()) return posixError(errno, file.native());
  faultPoint("file: temporary made");
  // The lock stays until the name is the final one, though the file is closed before.
  const Descriptor lock(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0));
  // The bytes must be on the disk before the name points to them, or a crash leaves an empty file.
  const bool replaced = writeAll(descriptor, bytes) && reached("file: written") &&
                        (!durable || ::fsync(descriptor.get()) == 0) && reached("file: flushed") &&
                        descriptor.close() && ::rename(temporary.c_str(), file.c_str()) == 0;
  if (!replaced) {
    const int code = errno;
    ::unlink(temporary.c_str());
    return posixError(code, file.native());
  }
  faultPoint("file: renamed");
  if (durable && !flushDirectory(directoryOf(file))) return posixError(errno, file.native());
  faultPoint("file: folder flushed");
  return std::nullopt;
}

Result<std::uint64_t> appendToFile(const fs::path& file, std::string_view bytes) {
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  const Descriptor descriptor(::open(file.c_str(), flags, S_IRUSR | S_IWUSR));
  struct stat before {};
  if (!descriptor.isOpen() || ::fstat(descriptor.get(), &before) != 0) return posixError(errno, file.native());
  if (!S_ISREG(before.st_mode)) return posixError(EINVAL, file.native());
  if (!writeAll(descriptor, bytes)) {
    const int code = errno;
    if (::ftruncate(descriptor.get(), before.st_size) != 0) return posixError(errno, file.native());
    return posixError(code, file.native());
  }
  faultPoint("file: line appended");
  return static_cast<std::uint64_t>(before.st_size) + bytes.size();
}

std::optional<Error> flushFile(const fs::path& file) {
  const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  if (!descriptor.isOpen() || ::fsync(descriptor.get()) != 0 || !flushDirectory(directoryOf(file)))
    return posixError(errno, file.native());
  return std::nullopt;
}

std::optional<Error> flushFolder(const fs::path& folder) {
  if (flushDirectory(folder)) return std::nullopt;
  return posixError(errno, folder.native());
}

bool isTemporaryFileName(std::string_view name) {
  return name.starts_with(kTemporaryPrefix) && name.size() == kTemporaryPrefix.size() + kTemporaryEnd.size();
}

std::optional<Error> createPrivateDirectories(const fs::path& directory) {
  std::error_code ignored;
  if (directory.empty() || fs::is_directory(directory, ignored)) return std::nullopt;
  if (auto error = createPrivateDirectories(directory.parent_path())) return error;
  if (::mkdir(directory.c_str(), S_IRWXU) == 0) {
    // A power cut must not take the folder with the flushed files in it. One that cannot be flushed is usable still.
    static_cast<void>(flushDirectory(directoryOf(directory)));
    return std::nullopt;
  }
  const int code = errno;
  // Another process may have been faster.
  if (fs::is_directory(directory, ignored)) return std::nullopt;
  return posixError(code, directory.native());
}

void removeAbandonedWrites(const fs::path& directory) {
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
    if (!isTemporaryFileName(entry->path().filename().native())) continue;
    const Descriptor left(::open(entry->path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (left.isOpen() && ::fstat(left.get(), &status) == 0 && S_ISREG(status.st_mode) && tryLockFile(left.get()))
      ::unlink(entry->path().c_str());
  }
}

bool isPlainFileName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace tarvo::platform
