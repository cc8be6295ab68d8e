#pragma once

#include <cstdint>

namespace tarvo::platform {

/// Stands under SQLite as the default file system and fails writes and flushes as told. The faults last until
/// `heal`. Threads: one.
class FaultyDisk {
 public:
  static void install();
  /// Lets `calls` more writes, flushes and truncations through, then fails each one (input/output error).
  static void failAfterCalls(std::int64_t calls);
  /// Lets `bytes` more through, then fails each write (disk full); the one on the border is written in part.
  static void failAfterBytes(std::int64_t bytes);
  static void heal();
  /// Failed calls since the last `heal`.
  static int failures();
};

}  // namespace tarvo::platform
