#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include <tarvo/LocationRecords.h>
#include <tarvo/platform/CLLocation.h>

namespace tarvo {

/// What a map needs of a position.
struct RoutePoint {
  double latitude = 0, longitude = 0;  ///< degrees
  bool isDisabled = false;             ///< its service action is action::kDisabled: collection was switched off
};

/// Where a `LocationRecords` reads its positions: in memory, or in the store.
///
/// The operations that take a visitor go through the positions in their order and hand them over one at a time; the
/// visitor must not start to go through them itself. They answer false when they could not go on to the end, which the
/// log tells.
class PositionSource {
 public:
  static const PositionSource& of(const LocationRecords& records);
  static LocationRecords records(std::shared_ptr<const PositionSource> source);

  virtual ~PositionSource() = default;
  virtual std::size_t size() const = 0;
  /// From `place` on, until the visitor answers false or has been given `limit` (0: all).
  virtual bool forEach(const std::function<bool(LocationRecord&&)>& visit, const LocationRecords::Place& place = {},
                       std::size_t limit = 0) const = 0;
  /// Of the first position, 0 for what it lacks; absent when there is no position or it cannot be read.
  virtual std::optional<platform::CLLocationCoordinate2D> firstCoordinate() const = 0;
  /// Only those positions that have coordinates.
  virtual bool forEachPoint(const std::function<void(const RoutePoint&)>& visit) const = 0;
};

/// Whether a position gives a fix though it lacks a value.
enum class Missing {
  givesNoFix,
  takesDefault,  ///< altitude 0; accuracy, course and speed -1, which is invalid
};

/// The fix from which the position was made. Absent without coordinates or fix time, whatever `missing` says.
std::optional<platform::CLLocation> fixOf(const LocationRecord& position, Missing missing);

}  // namespace tarvo
