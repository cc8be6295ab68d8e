#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace tarvo::sandbox {

/// What goes wrong with the next requests of a path, in the order in which it was planned for that path. Paths are
/// those behind the client id, without a query: "positions", "tags/set".
///
/// Threads: any. Each request that arrives uses up one planned fault, whatever its credentials.
class Faults {
 public:
  struct Planned {
    int status = 0;
    std::string body;  ///< empty: an error text of the backend
  };

  void answerNext(const std::string& path, std::size_t requests, int status, std::string body = {});
  void hangNext(const std::string& path, std::size_t requests);
  void answerNext(std::size_t posts, int status) { answerNext("positions", posts, status); }
  void hangNext(std::size_t posts) { hangNext("positions", posts); }
  /// Lets the requests that hang go on, and forgets those that were still to hang.
  void release();
  /// Whether at least that many requests hang, at the latest after `longest`.
  bool waitUntilHanging(std::size_t requests, std::chrono::milliseconds longest);

  /// Meets the fault planned for the request at hand, waiting while it is to hang. Returns what to answer with, or
  /// nothing when the request is to be handled.
  std::optional<Planned> meet(const std::string& path);
  /// Ends every wait with status 503, for good.
  void close();

 private:
  static constexpr int kHang = -1;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::deque<Planned>> planned_;
  std::size_t hanging_ = 0;
  std::size_t releases_ = 0;
  bool closed_ = false;
};

}  // namespace tarvo::sandbox
