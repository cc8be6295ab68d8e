#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::sandbox {

/// The folder of the logs that were received, one file for each name; made with the first of them.
///
/// Threads: any. Errors: std::system_error.
class LogFolder {
 public:
  explicit LogFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// On disk when it returns, in place of a file of this name, which is a plain one.
  void keep(std::string_view file, std::string_view content);
  std::optional<std::string> read(const std::string& file) const;

  const std::filesystem::path& path() const { return folder_; }

 private:
  const std::filesystem::path folder_;
  std::mutex mutex_;
};

}  // namespace tarvo::sandbox
