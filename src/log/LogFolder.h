#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/StorageLimits.h>

namespace tarvo {

/// The log files of all days, kept within the limits that the host has set: what is too old or too much goes, the
/// oldest days first, sent or not. Today's stays, and so does what is being uploaded.
///
/// Threads: `setInUse` any, the rest in blocks of the log's queue only. Errors: none; what cannot be removed stays.
class LogFolder {
 public:
  static LogFolder& shared();

  /// Who knows whether a file has to stay for now. Asked in blocks of the log's queue.
  using InUse = std::function<bool(const std::filesystem::path&)>;
  static void setInUse(InUse inUse);

  /// Whether so many more bytes may go into the file. Looks at the folder when a day begins, when a limit is changed,
  /// and when there is no room; then once a minute while there is none.
  bool admits(const std::string& file, std::size_t bytes);

 private:
  struct File {
    std::filesystem::path path;
    platform::Date day;
    std::uint64_t bytes;
  };
  void look(std::size_t bytes);
  std::vector<File> filesOfEarlierDays();
  bool hasRoomFor(std::size_t bytes) const { return !limits_.logBytes || bytes_ + bytes <= *limits_.logBytes; }

  StorageLimits limits_;                     ///< of the latest look, as is the next
  std::string today_;                        ///< what the names of the day's files begin with
  std::uint64_t bytes_ = 0;                  ///< of all files
  std::optional<platform::Seconds> fullAt_;  ///< when the latest look has made no room
};

}  // namespace tarvo
