#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

namespace tarvo::platform {

/// The files that a connection has open: finds out that one was removed or replaced, or that the write-ahead log or its
/// index was cut short. A shorter store is none of it: whoever compacts the file cuts it as well.
///
/// SQLite itself would go on: it writes to a file that nobody finds again, and since it maps the index of the
/// write-ahead log into memory, a cut index ends the process (SIGBUS). A look before each transaction leaves the moment
/// of the transaction itself.
/// A port writes this class (docs/porting.md). It must not close a descriptor of these files with which they could be
/// read: that would drop SQLite's own locks on them.
/// Threads: one at a time. Errors: a watched file that cannot be looked at counts as gone; one that cannot be watched,
/// for want of a descriptor for instance, counts as absent until it can.
class StoreFiles {
 public:
  /// Looks at nothing yet. The log is named as the store with `-wal` at the end, its index with `-shm`.
  explicit StoreFiles(const std::filesystem::path& store);
  ~StoreFiles();
  StoreFiles(const StoreFiles&) = delete;
  StoreFiles& operator=(const StoreFiles&) = delete;

  /// What lies there now, and was not there before, is what the connection has open: a file that is watched stays the
  /// watched one. An absent file is not watched, and nobody misses it.
  void watch();
  /// Whether the index of the write-ahead log can be touched: not once it was removed or replaced, or is shorter than
  /// at an earlier look. True while none is watched. One cheap system call.
  bool hasIndex();
  /// Whether what is written now would be found again: a store or log that was removed or replaced is noticed at once,
  /// by two cheap system calls, a store or a home that was moved aside within a second. The index and lengths do not
  /// count here. Watches first what has come since.
  bool areNamed();
  /// Whether the write-ahead log is watched: not before there was one, and a descriptor to look at it.
  bool watchesLog() const;
  /// The length of the write-ahead log in bytes when `watch` or `areNamed` looked at it last, 0 without one.
  std::uint64_t logSize() const;

 private:
  struct Watched;
  const std::unique_ptr<Watched> watched_;  ///< the port's own
};

}  // namespace tarvo::platform
