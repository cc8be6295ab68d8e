#pragma once

#include <optional>

#include <tarvo/Health.h>
#include <tarvo/Tarvo.h>

#include "unit/Loop.h"

namespace tarvo::unit {

/// What to do for positions that are not acknowledged: start a pass now, or look again after that time; neither where
/// there are none. `interval` is the least time since the last try.
struct NextPass {
  bool now = false;
  std::optional<platform::Seconds> lookAgain;
  bool operator==(const NextPass&) const = default;
};
NextPass nextPass(const Health& health, platform::Date now, platform::Seconds interval);

/// The SDK uploads with events alone. This starts a pass where something is unsent although nothing happens: the end of
/// a trip, a network that has come back. While nothing is unsent there is no timer, and none in
/// modes that upload nothing.
///
/// Threads: main. Errors: none.
class Uploads {
 public:
  Uploads(const Tarvo& tarvo, Loop& loop, platform::Seconds interval);

  /// Something may be unsent.
  void wake();
  void setInterval(platform::Seconds interval);

 private:
  void look();

  const Tarvo tarvo_;
  platform::Seconds interval_;
  const std::unique_ptr<Loop::Timer> timer_;
};

}  // namespace tarvo::unit
