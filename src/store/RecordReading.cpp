#include "store/RecordReading.h"

#include <numeric>
#include <utility>
#include <vector>

#include "log/Log.h"
#include "records/Positions.h"
#include "settings/Names.h"

namespace tarvo {
namespace {

namespace at = attribute::locations;

class StoredPositions : public PositionSource {
 public:
  explicit StoredPositions(platform::StoredRows rows) : rows_(std::move(rows)) {}

  std::size_t size() const override { return rows_.count(); }

  bool forEach(const std::function<bool(LocationRecord&&)>& visit, const LocationRecords::Place& place,
               std::size_t limit) const override {
    std::vector<int> all(at::kAll.size());
    std::iota(all.begin(), all.end(), 0);
    std::size_t known = place.alike;  // which may have been removed since
    const auto take = [&](const platform::StoredRow& row) {
      if (known == 0 || row.integer(at::index) != place.index) return visit(recordOf(row));
      --known;
      return true;
    };
    return pass(all, take, limit > 0 ? limit + known : 0, place.index);
  }

  std::optional<platform::CLLocationCoordinate2D> firstCoordinate() const override {
    std::optional<platform::CLLocationCoordinate2D> first;
    const auto take = [&](const platform::StoredRow& row) {
      first = {row.number(0).value_or(0), row.number(1).value_or(0)};
      return true;
    };
    pass({at::latitude, at::longitude}, take, 1);
    return first;
  }

  bool forEachPoint(const std::function<void(const RoutePoint&)>& visit) const override {
    return pass({at::latitude, at::longitude, at::serviceAction}, [&](const platform::StoredRow& row) {
      const auto latitude = row.number(0);
      const auto longitude = row.number(1);
      if (latitude && longitude) visit({*latitude, *longitude, row.string(2) == action::kDisabled});
      return true;
    });
  }

 private:
  bool pass(const std::vector<int>& attributes, const std::function<bool(const platform::StoredRow&)>& visit,
            std::size_t limit = 0, std::optional<std::int64_t> firstIndex = {}) const {
    const auto error = rows_.forEach(attributes, visit, limit, firstIndex);
    if (error) Log::error("Locations:getLocationHistory Unresolved error ", platform::errorAndUserInfo(*error));
    return !error;
  }

  platform::StoredRows rows_;
};

}  // namespace

LocationRecords storedPositions(platform::StoredRows rows) {
  return PositionSource::records(std::make_shared<const StoredPositions>(std::move(rows)));
}

}  // namespace tarvo
