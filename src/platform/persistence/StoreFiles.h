#pragma once

#include <cstdint>
#include <filesystem>

namespace tarvo::platform {

/// The files that a connection has open, by their paths: finds out that one was removed, replaced or cut short.
///
/// SQLite itself would go on: it writes to a file that nobody finds again, and since it maps the index of the
/// write-ahead log into memory, a cut index ends the process (SIGBUS). A look before each transaction leaves the moment
/// of the transaction itself.
/// Threads: one at a time. Errors: what cannot be looked at counts as gone.
class StoreFiles {
 public:
  explicit StoreFiles(const std::filesystem::path& store);

  /// What lies there now is what the connection has open. A file that is absent is not watched.
  void remember();
  /// Whether the index of the write-ahead log can be touched; one system call.
  bool hasIndex();
  /// Whether what is written now would be found again; two system calls. `logSize` gets the length of the write-ahead
  /// log in bytes, 0 without one.
  bool areNamed(std::uint64_t& logSize) const;

 private:
  struct File {
    std::filesystem::path path;
    bool isWatched = false;
    std::uint64_t device = 0;
    std::uint64_t node = 0;
    std::uint64_t size = 0;
  };
  static File statusOf(const std::filesystem::path& path);
  static bool isSame(const File& now, const File& known);

  File store_, log_, index_;
};

}  // namespace tarvo::platform
