#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/Records.h>

namespace tarvo {

class PositionSource;

/// The positions of a history, by ascending index. They stay in the SDK's store until they are asked for, so that a
/// year of them takes no memory. Which positions they are is fixed when the history is made; their upload flags are
/// those of the moment of reading. What `StorageLimits` or an erasing takes meanwhile is left out; `size` stays.
///
/// Threads: any, one at a time for each object; reading waits for the store's other work.
/// Errors: throws nothing but std::bad_alloc; when not all of them can be read that is logged, and `toVector` gives
/// none.
class TARVO_API LocationRecords {
 public:
  /// No positions.
  LocationRecords() = default;
  /// These positions, which need no store.
  LocationRecords(std::vector<LocationRecord> records);

  std::size_t size() const;
  bool empty() const { return size() == 0; }
  /// Copies of all of them, some 500 bytes of memory each; `LocationsHistory::toGeoJSON` needs far less.
  std::vector<LocationRecord> toVector() const;

 private:
  friend class PositionSource;  // where the SDK reads them
  std::shared_ptr<const PositionSource> source_;
};

}  // namespace tarvo
