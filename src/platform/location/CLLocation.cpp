#include <tarvo/platform/CLLocation.h>

#include <algorithm>
#include <cmath>

#include "platform/foundation/DateFormatter.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/Text.h"
#include "platform/location/Geodesy.h"

namespace tarvo::platform {

namespace {

/// What `localizedShortDateFullTime` gives, kept for the latest minute: fixes follow each other by the second, and
/// within a minute only the two digits of the seconds differ. Threads: any.
class FixTimes {
 public:
  void append(std::string& out, Date date) {
    const double second = std::floor(secondsSince1970(date));
    const double minute = std::floor(second / 60) * 60;
    MutexLock lock(mutex_);
    if (minute != minute_) keep(minute);
    if (!hasSeconds_) {
      out.append(localizedShortDateFullTime(date));
      return;
    }
    const auto digits = static_cast<int>(second - minute);
    out.append(beforeSeconds_);
    out.push_back(static_cast<char>('0' + digits / 10));
    out.push_back(static_cast<char>('0' + digits % 10));
    out.append(afterSeconds_);
  }

 private:
  /// Finds the seconds where the texts of two moments differ. They are not where digits are others than ours, in a
  /// zone that is not a whole minute from UTC, and in what is no date.
  void keep(double minute) REQUIRES(mutex_) {
    const std::string none = localizedShortDateFullTime(dateSince1970(minute));
    const std::string eleven = localizedShortDateFullTime(dateSince1970(minute + 11));
    const auto at = static_cast<std::size_t>(
        std::mismatch(none.begin(), none.end(), eleven.begin(), eleven.end()).first - none.begin());
    minute_ = minute;
    beforeSeconds_ = none.substr(0, at);
    afterSeconds_ = none.size() < at + 2 ? "" : none.substr(at + 2);
    hasSeconds_ =
        none == concat(beforeSeconds_, "00", afterSeconds_) && eleven == concat(beforeSeconds_, "11", afterSeconds_);
  }

  Mutex mutex_;
  double minute_ GUARDED_BY(mutex_) = std::nan("");
  bool hasSeconds_ GUARDED_BY(mutex_) = false;
  std::string beforeSeconds_ GUARDED_BY(mutex_);
  std::string afterSeconds_ GUARDED_BY(mutex_);
};

}  // namespace

double CLLocation::distanceFrom(const CLLocation& other) const {
  return geodesicWay(other.coordinate, coordinate).metres;
}

std::string CLLocation::description() const {
  static FixTimes* const times = new FixTimes;
  std::string text = concat("<", coordinate, "> +/- ", Fixed{horizontalAccuracy, 2}, "m (speed ", Fixed{speed, 2},
                            " mps / course ", Fixed{course, 2}, ") @ ");
  times->append(text, timestamp);
  return text;
}

}  // namespace tarvo::platform
