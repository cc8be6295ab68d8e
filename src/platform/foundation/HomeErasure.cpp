#include "platform/foundation/HomeErasure.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <vector>

#include <tarvo/platform/Environment.h>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/FileLock.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

/// As long as a second process waits for the right to write.
constexpr std::chrono::milliseconds kLongestWait{10'000};

fs::path markerOf(const fs::path& home) { return home / "Library" / "erasing"; }

/// The document directories that a marker names, each with a NUL behind it. Only the library's own names are looked
/// for there, so that a marker by somebody else does little harm.
std::vector<fs::path> directoriesIn(std::string_view marker) {
  std::vector<fs::path> directories;
  for (std::size_t end; (end = marker.find('\0')) != marker.npos; marker.remove_prefix(end + 1))
    if (fs::path directory(marker.substr(0, end)); directory.is_absolute()) directories.push_back(std::move(directory));
  return directories;
}

bool isThere(const fs::path& file) {
  std::error_code ignored;
  return fs::exists(fs::symlink_status(file, ignored));
}

/// Wipes what is asked for, whatever fails on the way, and keeps the first failure.
class Wiping {
 public:
  void wipe(const fs::path& file) {
    if (!isThere(file)) return;
    faultPoint("erase: before a file");
    note(wipeFile(file));
  }

  /// The regular files of a folder whose names `belongs` accepts, and what cut-off writes have left there.
  template <class Belongs>
  void wipeIn(const fs::path& folder, const Belongs& belongs) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
      std::error_code unknown;
      const std::string name = entry->path().filename().string();
      if ((belongs(name) || isTemporaryFileName(name)) && fs::is_regular_file(entry->symlink_status(unknown)))
        files.push_back(entry->path());
    }
    for (const fs::path& file : files) wipe(file);
    if (isThere(folder)) note(flushFolder(folder));
  }

  void note(std::optional<Error> error) {
    if (!failure) failure = std::move(error);
  }

  std::optional<Error> failure;
};

std::optional<Error> eraseHome(const fs::path& home) {
  auto marker = readFile(markerOf(home));
  if (!marker) return marker.error();
  Wiping wiping;
  for (const fs::path& directory : directoriesIn(*marker)) {
    // The host may have put a link to another volume there; the files beside the store lie where it lies.
    std::error_code failure;
    const fs::path named = directory / kStoreFileName;
    const fs::path store = fs::canonical(named, failure);
    for (const char* end : {"-wal", "-journal", "-shm", ""}) {
      if (!failure) wiping.wipe(store.native() + end);
      wiping.wipe(named.native() + end);
    }
    if (!failure) wiping.note(flushFolder(store.parent_path()));
    wiping.wipeIn(directory, [](const std::string& name) {
      return name.starts_with(kLogFilePrefix) && name.ends_with(kLogFileExtension);
    });
  }
  wiping.wipeIn(home / kTransfersFolder, [](const std::string& name) { return name.ends_with(".jsonl"); });
  for (const char* name : {kSettingsFile, kIdentifierFile}) {
    wiping.wipe(home / name);
    wiping.wipeIn((home / name).parent_path(), [](const std::string&) { return false; });
  }
  if (wiping.failure) return wiping.failure;
  faultPoint("erase: before the marker goes");
  if (::unlink(markerOf(home).c_str()) != 0) return posixError(errno, markerOf(home).native());
  return flushFolder(markerOf(home).parent_path());
}

}  // namespace

std::optional<Error> wipeFile(const fs::path& file) {
  {
    const Descriptor descriptor(::open(file.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (descriptor.isOpen() && ::fstat(descriptor.get(), &status) == 0 && S_ISREG(status.st_mode)) {
      const std::string zeros(std::size_t{256} * 1024, '\0');
      // What cannot be overwritten, for instance for lack of room where blocks are written anew, goes all the same.
      for (auto left = static_cast<std::uint64_t>(status.st_size); left > 0;) {
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, zeros.size()));
        if (!writeAll(descriptor, std::string_view(zeros).substr(0, count))) break;
        left -= count;
      }
      (void)::fsync(descriptor.get());
    }
  }
  if (::unlink(file.c_str()) != 0 && errno != ENOENT) return posixError(errno, file.native());
  return std::nullopt;
}

std::optional<Error> HomeErasure::begin() {
  const fs::path marker = markerOf(homeDirectory());
  std::string text;
  for (const fs::path& directory : documentDirectories()) text.append(directory.native()).push_back('\0');
  faultPoint("erase: before the marker");
  if (auto error = createPrivateDirectories(marker.parent_path())) return error;
  if (auto error = writeFileAtomically(marker, text, true)) return error;
  faultPoint("erase: marked");
  return std::nullopt;
}

std::optional<Error> HomeErasure::finish() { return eraseHome(homeDirectory()); }

std::optional<std::string> HomeErasure::takeUp(const fs::path& home) {
  const fs::path marker = markerOf(home);
  if (!isThere(marker)) return std::nullopt;
  auto text = readFile(marker);
  const auto directories = text ? directoriesIn(*text) : std::vector<fs::path>{};
  FileLock right(directories.empty() ? std::string() : (directories.back() / kStoreFileName).native() + ".lock");
  std::error_code ignored;
  if (!directories.empty() && fs::is_directory(directories.back(), ignored)) {
    const auto locked = right.lock(kLongestWait, [&] { return !isThere(marker); });
    if (!isThere(marker)) return std::nullopt;
    if (locked && !right.isHeld())
      return concat("An erasing of this home waits for ", right.holder(), ", which has its store");
  }
  const auto error = eraseHome(home);
  if (!error) return "An erasing of this home that was cut off is done";
  return concat("An erasing of this home could not be finished: ", error->localizedDescription);
}

}  // namespace tarvo::platform
