#pragma once

#include <chrono>
#include <filesystem>
#include <optional>

#include "platform/foundation/Error.h"
#include "platform/foundation/FileLock.h"

namespace tarvo::platform {

/// The right to change a store, which one process at a time has, from its first change to its end. Who only reads never
/// asks for it.
///
/// Threads: one at a time. Spans are the machine's own time: another process does not follow an installed clock, and a
/// replay's stands still while it is waited for.
class WriteRight {
 public:
  using Span = std::chrono::milliseconds;

  /// How long another process is waited for: once, since a restart overlaps for moments; later it is only looked
  /// whether the other has gone, this often at most.
  struct Patience {
    Span first{10'000};
    Span betweenLooks{1'000};
  };

  WriteRight(const std::filesystem::path& store, Patience patience);

  /// Absent once this process has the right, else who keeps it. `wait` stands for this one wait.
  std::optional<Error> take(std::optional<Span> wait = {});
  void giveBack() { lock_.unlock(); }

  /// Held as well for the moment in which a store is made.
  static std::filesystem::path lockFileOf(const std::filesystem::path& store);

 private:
  const std::filesystem::path store_;
  const Patience patience_;
  FileLock lock_;
  std::optional<Error> refusal_;  ///< of the latest look
  std::chrono::steady_clock::time_point nextLook_;
};

}  // namespace tarvo::platform
