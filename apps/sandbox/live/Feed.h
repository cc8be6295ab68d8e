#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>

#include "sandbox/store/Store.h"

namespace tarvo::sandbox::live {

/// Wakes those who watch when something happens in the store, whichever process made it happen: one thread asks for
/// the number of the newest event, ten times a second, and only while somebody waits.
///
/// Threads: any. Errors: none; a store that fails is asked again.
class Feed {
 public:
  explicit Feed(Store& store);
  ~Feed();
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

  /// Waits for an event with a higher number, at most `longest`. Returns the newest that is known, or nothing once the
  /// feed has been stopped.
  std::optional<std::int64_t> waitBeyond(std::int64_t after, std::chrono::milliseconds longest);
  /// Ends every wait and the asking, for good. One thread at a time.
  void stop();

 private:
  void poll();

  Store& store_;
  std::mutex mutex_;
  std::condition_variable changed_, wanted_;
  std::int64_t last_ = 0;
  int waiting_ = 0;
  bool stopped_ = false;
  std::thread thread_;
};

}  // namespace tarvo::sandbox::live
