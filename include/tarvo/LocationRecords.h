#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/Records.h>

namespace tarvo {

class PositionSource;

/// The positions of a history, in its order. Those of the SDK stay in its store until they are asked for, so that a
/// year of them takes no memory; which ones they are is fixed when the history is made, their upload flags are those of
/// the moment of reading.
///
/// Threads: any, one at a time for each object; reading waits for the store's other work.
/// Errors: never throws; when they cannot all be read that is logged, and there are none.
class TARVO_API LocationRecords {
 public:
  /// No positions.
  LocationRecords() = default;
  /// These positions, without a store.
  LocationRecords(std::vector<LocationRecord> records);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  /// All of them in memory, some 500 bytes each; `LocationsHistory::toGeoJSON` needs far less.
  std::vector<LocationRecord> toVector() const;

 private:
  friend class PositionSource;  // where the SDK reads them
  std::shared_ptr<const PositionSource> source_;
};

}  // namespace tarvo
