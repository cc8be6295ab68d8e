#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

#include "platform/foundation/Files.h"

namespace tarvo::platform {

/// The right of one process to something, as a lock on a file beside it.
///
/// The system ends the lock with the process, however that ends, and a forked child has no share in it. The file is
/// never removed: otherwise two processes could each lock a file of that name. It holds the holder's process id and
/// name, but only people read them.
/// Threads: one at a time; a fork may come on any thread at any moment.
class FileLock {
 public:
  explicit FileLock(std::filesystem::path file) : file_(std::move(file)) {}
  ~FileLock() { unlock(); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  /// Makes the file (mode 0600) where there is none. False while another holds it; an error when the file cannot be
  /// made or locked. True when it is held already.
  Result<bool> tryLock();
  /// Asks again for up to `patience` of the machine's own time, or until `giveUp` says so.
  Result<bool> lock(std::chrono::milliseconds patience, const std::function<bool()>& giveUp = {});
  void unlock();
  bool isHeld() const { return descriptor_.isOpen(); }

  /// "NAME (process N)" of who wrote itself down last, "another process" when nobody can be read.
  std::string holder() const;

  /// How many forks lie between the process that was started and this one. What was opened while the number was another
  /// belongs to a parent of this process.
  static unsigned forks();

 private:
  struct Registry;
  static Registry& registry();
  void writeHolder() const;

  const std::filesystem::path file_;
  Descriptor descriptor_;  ///< open while the lock is held
};

}  // namespace tarvo::platform
