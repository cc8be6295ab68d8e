#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include <tarvo/platform/CLLocation.h>
#include <tarvo/platform/LocationService.h>

#include "platform/location/CLLocationManager.h"

namespace tarvo::platform {

struct RegionCrossing {
  CLCircularRegion region;
  bool entered;
};

/// The regions of the process and, for each, on which side of its border the device is.
///
/// Threads: one at a time; the service guards it with its lock.
class RegionMonitor {
 public:
  /// Adds or replaces; false, and nothing changes, when there are too many or the radius is negative, not finite or
  /// too large. The device is on the side of `latest`, or of the first fix to come.
  bool add(const CLCircularRegion& region, const std::optional<CLLocation>& latest,
           const LocationService::Rules& rules);
  void remove(std::string_view identifier);
  std::vector<CLCircularRegion> regions() const;

  /// The borders that have been crossed for good with `fix` at `now`, in monotonic time. A fix of negative accuracy
  /// changes nothing.
  std::vector<RegionCrossing> evaluate(const CLLocation& fix, Seconds now, const LocationService::Rules& rules);

 private:
  struct Entry {
    CLCircularRegion region;
    std::optional<bool> inside;
    std::optional<Seconds> pastBorderSince;  ///< clearly on the other side from then on
  };
  std::vector<Entry> entries_;
};

}  // namespace tarvo::platform
