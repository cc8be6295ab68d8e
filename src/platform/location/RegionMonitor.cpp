#include "platform/location/RegionMonitor.h"

#include <algorithm>
#include <cmath>

#include "platform/location/Geodesy.h"

namespace tarvo::platform {

bool RegionMonitor::add(const CLCircularRegion& region, const std::optional<CLLocation>& latest,
                        const LocationService::Rules& rules) {
  if (!std::isfinite(region.radius) || region.radius < 0 || region.radius > rules.maximumRegionMonitoringMetres)
    return false;
  Entry entry{region, std::nullopt, std::nullopt};
  if (latest && latest->horizontalAccuracy >= 0)
    entry.inside = geodesicWay(region.center, latest->coordinate).metres <= region.radius;
  const auto same =
      std::find_if(entries_.begin(), entries_.end(), [&](const Entry& known) { return known.region == region; });
  if (same != entries_.end()) {
    *same = std::move(entry);
    return true;
  }
  if (entries_.size() >= rules.regionLimit) return false;
  entries_.push_back(std::move(entry));
  return true;
}

void RegionMonitor::remove(std::string_view identifier) {
  std::erase_if(entries_, [&](const Entry& entry) { return entry.region.identifier == identifier; });
}

std::vector<CLCircularRegion> RegionMonitor::regions() const {
  std::vector<CLCircularRegion> regions;
  regions.reserve(entries_.size());
  for (const Entry& entry : entries_) regions.push_back(entry.region);
  return regions;
}

std::vector<RegionCrossing> RegionMonitor::evaluate(const CLLocation& fix, Seconds now,
                                                    const LocationService::Rules& rules) {
  std::vector<RegionCrossing> crossings;
  if (fix.horizontalAccuracy < 0) return crossings;
  for (Entry& entry : entries_) {
    const double radius = entry.region.radius;
    const double border = std::min(rules.regionBorderMetres, radius / 2);
    const double metres = geodesicWay(entry.region.center, fix.coordinate).metres;
    if (!entry.inside) {
      entry.inside = metres <= radius;
      continue;
    }
    const bool past = *entry.inside ? metres > radius + border : metres <= radius - border;
    if (!past) {
      entry.pastBorderSince.reset();
    } else if (!entry.pastBorderSince) {
      entry.pastBorderSince = now;
    }
    if (!past || now - *entry.pastBorderSince < rules.regionStay) continue;
    entry.inside = !*entry.inside;
    entry.pastBorderSince.reset();
    crossings.push_back({entry.region, *entry.inside});
  }
  return crossings;
}

}  // namespace tarvo::platform
