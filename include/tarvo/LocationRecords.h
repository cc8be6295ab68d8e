/// @file
/// The positions of a history, read from the store as they are asked for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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

  /// How many there were when the history was made.
  std::size_t size() const;
  /// Whether there were none.
  bool empty() const { return size() == 0; }
  /// Copies of all of them, some 500 bytes of memory each; `LocationsHistory::toGeoJSON` needs far less.
  std::vector<LocationRecord> toVector() const;

  /// How far a reading in pieces has come; as constructed, before the first position.
  struct Place {
    std::size_t read = 0;               ///< positions so far
    std::optional<std::int64_t> index;  ///< of the last of them
    std::size_t alike = 0;              ///< how many of them had that index
  };
  /// Copies of the positions that follow `place`, at most `count`, and moves it behind them; none at the end. Absent,
  /// with `place` where it was, when they cannot be read. All pieces together cost about what `toVector` does.
  std::optional<std::vector<LocationRecord>> next(Place& place, std::size_t count) const;

 private:
  friend class PositionSource;  // where the SDK reads them
  std::shared_ptr<const PositionSource> source_;
};

}  // namespace tarvo
