#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace tarvo::cli {

/// What the host's property list says to the backend.
struct HostKeys {
  std::optional<std::string> apiKey, clientID;
  bool complete() const { return apiKey && !apiKey->empty() && clientID && !clientID->empty(); }
};

/// The folder that holds everything of a run: store, defaults, logs and the property list.
///
/// Threads: none; used from main alone. Errors: Failure with status kUnusable.
class Home {
 public:
  explicit Home(std::filesystem::path directory) : directory_(std::move(directory)) {}
  /// A new folder among the temporary files.
  static Home temporary();

  /// Creates the folder if need be; what this process makes from here on is for its user alone.
  void create() const;
  /// Puts the keys that are given into the property list and keeps the rest of it.
  void writeKeys(const HostKeys& keys) const;
  /// What the property list holds; both keys are absent when it cannot be read.
  HostKeys readKeys() const;
  bool hasPropertyList() const;

  /// Fails with status kLeft unless a store was made here.
  void requireStore() const;
  /// The store with its side files, in bytes.
  std::uint64_t storeSize() const;
  std::uint64_t logSize() const;

  const std::filesystem::path& directory() const { return directory_; }
  std::filesystem::path propertyList() const { return directory_ / "Info.plist"; }
  std::filesystem::path store() const { return documents() / "Marrowgate-Tarvo-db3.sqlite"; }
  std::filesystem::path sandboxArchive() const { return directory_ / "sandbox.sqlite"; }

 private:
  std::filesystem::path documents() const { return directory_ / "Documents"; }
  /// The bytes of all files in the documents folder whose name begins so.
  std::uint64_t sizeOfDocuments(const std::string& prefix) const;

  std::filesystem::path directory_;
};

}  // namespace tarvo::cli
