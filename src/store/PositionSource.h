#pragma once

#include <functional>
#include <optional>

#include <tarvo/LocationRecords.h>
#include <tarvo/platform/CLLocation.h>

#include "platform/persistence/StoredRows.h"

namespace tarvo {

/// What a map needs of a position.
struct RoutePoint {
  double latitude = 0, longitude = 0;  ///< degrees
  bool isDisabled = false;             ///< collection was off
};

/// Positions in order, gone through one at a time. Visitors do not go through any themselves. A pass answers false when
/// it could not be made to its end, which the log tells.
class LocationRecords::Source {
 public:
  virtual ~Source() = default;
  virtual std::size_t size() const = 0;
  /// Until the visitor answers false.
  virtual bool forEach(const std::function<bool(LocationRecord&&)>& visit) const = 0;
  /// Of the first position, 0 where it has none; absent without positions, and when it cannot be read.
  virtual std::optional<platform::CLLocationCoordinate2D> firstCoordinate() const = 0;
  /// Those that have coordinates.
  virtual bool forEachPoint(const std::function<void(const RoutePoint&)>& visit) const = 0;
};

/// Positions in the store.
LocationRecords storedPositions(platform::StoredRows rows);

}  // namespace tarvo
