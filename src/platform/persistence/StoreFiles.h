#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>

namespace tarvo::platform {

/// The files that a connection has open: finds out that one was removed or replaced, or that the write-ahead log or its
/// index was cut short. A shorter store is none of it: whoever compacts the file cuts it as well.
///
/// SQLite itself would go on: it writes to a file that nobody finds again, and since it maps the index of the
/// write-ahead log into memory, a cut index ends the process (SIGBUS). A look before each transaction leaves the moment
/// of the transaction itself.
/// Threads: one at a time. Errors: what cannot be looked at counts as gone.
class StoreFiles {
 public:
  explicit StoreFiles(const std::filesystem::path& store);
  ~StoreFiles();
  StoreFiles(const StoreFiles&) = delete;
  StoreFiles& operator=(const StoreFiles&) = delete;

  /// What lies there now, and was not there before, is what the connection has open. An absent file is not watched.
  void watch();
  /// Whether the index of the write-ahead log can be touched; one cheap system call.
  bool hasIndex();
  /// Whether what is written now would be found again: removed and replaced files are noticed at once, by two cheap
  /// system calls, a store or a home that was moved aside within a second.
  bool areNamed();
  /// Whether the write-ahead log is watched: not before there was one, and a descriptor to look at it.
  bool watchesLog() const { return log_ >= 0; }
  /// The length of the write-ahead log in bytes when it was looked at last, 0 without one.
  std::uint64_t logSize() const { return logSize_; }

 private:
  bool isInPlace();

  const std::filesystem::path path_;
  std::uint64_t device_ = 0, node_ = 0;             ///< of the store
  std::chrono::steady_clock::time_point looked_{};  ///< at the path, last
  int store_ = -1;
  int log_ = -1;
  int index_ = -1;
  std::uint64_t indexSize_ = 0;
  std::uint64_t logSize_ = 0;
};

}  // namespace tarvo::platform
