#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace tarvo::sandbox {

/// What goes wrong with the next position posts, in the order in which it was planned.
///
/// Threads: any. Each post that arrives uses up one planned fault.
class Faults {
 public:
  void answerNext(std::size_t posts, int status);
  void hangNext(std::size_t posts);
  /// Lets the posts that hang go on, and forgets those that were still to hang.
  void release();
  /// Whether at least that many posts hang, at the latest after `longest`.
  bool waitUntilHanging(std::size_t posts, std::chrono::milliseconds longest);

  /// Meets the fault planned for the post at hand, waiting while it is to hang. Returns the status to answer with,
  /// or 0 when the post is to be handled.
  int meet();
  /// Ends every wait with status 503, for good.
  void close();

 private:
  static constexpr int kHang = -1;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<int> planned_;
  std::size_t hanging_ = 0;
  std::size_t releases_ = 0;
  bool closed_ = false;
};

}  // namespace tarvo::sandbox
