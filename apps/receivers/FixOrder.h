#pragma once

#include <cstdint>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/Date.h>

namespace tarvo::receivers {

/// Lets through the fixes of a receiver that come later than those before: no double, no step back in time, none from
/// before the earliest plausible time.
///
/// A receiver whose clock has been set back for good is believed again with the tenth fix in a row that lies behind the
/// last one let through while each is later than the one before it. So a single fix that is years ahead costs nine.
///
/// Threads: one at a time; it has none of its own. Errors: none.
class FixOrder {
 public:
  /// What became of the fixes; `taken` is the sum of `passed` and of those dropped.
  struct Statistics {
    std::uint64_t taken = 0, passed = 0;
    std::uint64_t doubles = 0, stepsBack = 0, implausible = 0;  ///< dropped
    std::uint64_t setBack = 0;                                  ///< times a clock set back was believed
    bool operator==(const Statistics&) const = default;
  };

  explicit FixOrder(platform::Date earliest = platform::dateSince1970(0));

  /// Those of `fixes` that may pass, in their order.
  std::vector<platform::CLLocation> take(std::vector<platform::CLLocation> fixes);

  Statistics statistics() const { return statistics_; }

 private:
  bool passes(platform::Date time);

  const platform::Date earliest_;
  platform::Date last_ = platform::distantPast();  ///< let through
  platform::Date lastBehind_ = platform::distantPast();
  int behind_ = 0;  ///< fixes in a row behind `last_` that ascend
  Statistics statistics_;
};

}  // namespace tarvo::receivers
