#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

// The names of what the library keeps (docs/formats.md): in the document directories, and below the home.
inline constexpr const char* kStoreFileName = "Marrowgate-Tarvo-db3.sqlite";
inline constexpr const char* kLogFilePrefix = "TarvoLog";
inline constexpr const char* kLogFileExtension = ".txt";
inline constexpr const char* kTransfersFolder = "Library/Transfers";
inline constexpr const char* kSettingsFile = "Library/Preferences/defaults.plist";
inline constexpr const char* kIdentifierFile = "Library/identifierForVendor";

/// Erases what the library keeps in a home: each file is overwritten with zeros, flushed and removed. A marker,
/// `Library/erasing`, is written first and goes last: whoever starts on a home that has one finishes the erasing before
/// anything else of the home is read, so that a kill at any moment leaves nothing that is used again.
///
/// Threads: any. Lock files stay: they hold a process's number and name alone.
class HomeErasure {
 public:
  /// Puts the marker on the disk, with the document directories in which files lie. Absent on success.
  static std::optional<Error> begin();

  /// Removes everything, then the marker. For the process that has the right to write to the store, while it has no
  /// file of it open. On failure, of which the first is told, the marker stays.
  static std::optional<Error> finish();

  /// Finishes what an earlier process has begun; once in a process, which asks for that home for the first time. Waits
  /// for up to 10 s for a process that is at it. Answers what has to be told in the system log, with no lock held.
  static std::optional<std::string> takeUp(const std::filesystem::path& home);
};

/// Overwrites the file with zeros as far as the file system lets it, and removes it; links are not followed. Absent on
/// success, and when there is no such file.
std::optional<Error> wipeFile(const std::filesystem::path& file);

}  // namespace tarvo::platform
