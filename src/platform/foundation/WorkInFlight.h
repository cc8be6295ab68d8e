#pragma once

#include <cstdint>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// Counts everything that is queued, running or in flight in this process, so that one can wait until nothing is.
///
/// Each queued block, each transfer from its start to the end of its completion, and each due timer counts. What a
/// block starts is counted before the block ends, so the count passes zero only when all work is done.
/// Threads: any.
class WorkInFlight {
 public:
  /// Counts for as long as it lives.
  class Token {
   public:
    Token() { begin(); }
    ~Token() { end(); }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
  };

  static void begin();
  static void end(std::int64_t number = 1);

  /// Waits until nothing is under way or `limit` of real time has passed; answers whether it is idle.
  /// Runs the main queue's blocks while waiting when called on the main thread.
  /// Must not be called from a block of a queue: the block itself would be waited for (fatal).
  static bool waitUntilIdle(Seconds limit);

 private:
  static bool idle();
};

}  // namespace tarvo::platform
