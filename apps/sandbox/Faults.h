#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sandbox/faults/Rule.h"

namespace tarvo::sandbox {

/// What goes wrong with the requests to come. Of the rules that are for a request the one that was added first happens
/// to it, whatever its credentials; one that has happened as often as it may, or whose time is over, is forgotten once
/// no request waits in it. Paths are those behind the client id, without a query: "positions", "tags/set".
///
/// Threads: any.
class Faults {
 public:
  /// A rule as it stands: how often it has happened, and how many seconds it lives on.
  struct Standing {
    std::int64_t id = 0;
    Rule rule;
    std::int64_t met = 0;
    std::optional<double> left;
  };

  std::int64_t add(Rule rule);
  /// Requests that wait in it go on. Whether there was one of this number.
  bool remove(std::int64_t id);
  void clear();
  /// In the order in which they were added.
  std::vector<Standing> standing();

  /// An empty body is an error text of the backend.
  void answerNext(const std::string& path, std::size_t requests, int status, const std::string& body = {});
  void hangNext(const std::string& path, std::size_t requests);
  void answerNext(std::size_t posts, int status) { answerNext("positions", posts, status); }
  void hangNext(std::size_t posts) { hangNext("positions", posts); }
  /// Lets the requests that hang go on, and forgets those that were still to hang.
  void release();
  /// Whether at least that many requests hang, at the latest after `longest`.
  bool waitUntilHanging(std::size_t requests, std::chrono::milliseconds longest);

  /// A request that would be one more to wait is dropped instead: whoever waits occupies a thread of the server, and
  /// some have to be left to those who end the wait.
  void waitAtMost(std::size_t requests);

  /// Meets the fault for the request at hand, and waits as it says. Nothing when all is well.
  std::optional<Rule> meet(const std::string& path);
  /// Waits; whether the request may go on then.
  bool pause(double seconds);
  /// Ends every wait for good: a request that waited gets status 503.
  void close();

 private:
  using Clock = std::chrono::steady_clock;

  struct State {
    Rule rule;
    std::optional<Clock::time_point> end;
    std::int64_t seen = 0, met = 0;
    int waiting = 0;

    bool lives(Clock::time_point now) const;
  };

  void forget();
  /// Whether it has waited.
  bool wait(std::unique_lock<std::mutex>& lock, std::int64_t id);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::int64_t, State> rules_;  ///< by number
  std::int64_t last_ = 0;
  std::size_t hanging_ = 0, waiting_ = 0, mostWaiting_ = SIZE_MAX;
  bool closed_ = false;
};

}  // namespace tarvo::sandbox
