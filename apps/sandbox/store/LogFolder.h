#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::sandbox {

/// The folder of the logs that were received, USER/FILE; made with the first of them.
///
/// Threads: any. Errors: std::system_error.
class LogFolder {
 public:
  explicit LogFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// On disk when it returns, in place of the user's file of this name. Both names are plain ones.
  void keep(const std::string& user, std::string_view file, std::string_view content);
  /// One that an earlier version has kept lies in the folder itself.
  std::optional<std::string> read(const std::string& user, const std::string& file) const;

  const std::filesystem::path& path() const { return folder_; }

 private:
  const std::filesystem::path folder_;
  std::mutex mutex_;
};

}  // namespace tarvo::sandbox
