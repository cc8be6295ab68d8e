#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>

namespace tarvo::receivers {

/// How long a receiver's messages may lie before they are read: a second, or five once nothing has moved for half a
/// minute.
///
/// A fix moves whose speed is 1 m/s or more, or which lies farther from where the unit came to rest than the accuracies
/// of both explain. A unit without fixes does not move; fixes keep their times, so that none is worse for being read
/// late.
///
/// Threads: one at a time. Errors: none.
class Pace {
 public:
  /// `room` bytes wait unread without harm; then at most half of it may come during a pause.
  explicit Pace(std::size_t room);

  /// The pause after `fixes` were read at `now`, monotonic, in `bytes` that have come since the last call.
  platform::Seconds pauseAfter(const std::vector<platform::CLLocation>& fixes, std::size_t bytes,
                               platform::Seconds now);

 private:
  bool moves(const platform::CLLocation& fix);

  const std::size_t room_;
  std::optional<platform::CLLocation> rest_;  ///< where the unit came to rest
  std::optional<platform::Seconds> lastRead_;
  platform::Seconds lastMoved_{0};
};

}  // namespace tarvo::receivers
