#include <tarvo/LocationRecords.h>

#include <numeric>

#include "log/Log.h"
#include "store/Attributes.h"
#include "store/PositionSource.h"
#include "store/RecordOf.h"

namespace tarvo {
namespace {

constexpr std::string_view kDisabled = "loc_disabled";

class HeldPositions : public LocationRecords::Source {
 public:
  explicit HeldPositions(std::vector<LocationRecord> records) : records_(std::move(records)) {}

  std::size_t size() const override { return records_.size(); }

  bool forEach(const std::function<bool(LocationRecord&&)>& visit) const override {
    for (const LocationRecord& record : records_)
      if (!visit(LocationRecord(record))) break;
    return true;
  }

  std::optional<platform::CLLocationCoordinate2D> firstCoordinate() const override {
    if (records_.empty()) return std::nullopt;
    return platform::CLLocationCoordinate2D{records_.front().latitude.value_or(0),
                                            records_.front().longitude.value_or(0)};
  }

  bool forEachPoint(const std::function<void(const RoutePoint&)>& visit) const override {
    for (const LocationRecord& record : records_)
      if (record.latitude && record.longitude)
        visit({*record.latitude, *record.longitude, record.serviceAction == kDisabled});
    return true;
  }

 private:
  std::vector<LocationRecord> records_;
};

class StoredPositions : public LocationRecords::Source {
 public:
  explicit StoredPositions(platform::StoredRows rows) : rows_(std::move(rows)) {}

  std::size_t size() const override { return rows_.count(); }

  bool forEach(const std::function<bool(LocationRecord&&)>& visit) const override {
    std::vector<int> all(attribute::locations::kAll.size());
    std::iota(all.begin(), all.end(), 0);
    return pass(all, [&](const platform::StoredRow& row) { return visit(recordOf(row)); });
  }

  std::optional<platform::CLLocationCoordinate2D> firstCoordinate() const override {
    namespace at = attribute::locations;
    std::optional<platform::CLLocationCoordinate2D> first;
    const auto take = [&](const platform::StoredRow& row) {
      first = {row.number(0).value_or(0), row.number(1).value_or(0)};
      return true;
    };
    pass({at::latitude, at::longitude}, take, 1);
    return first;
  }

  bool forEachPoint(const std::function<void(const RoutePoint&)>& visit) const override {
    namespace at = attribute::locations;
    return pass({at::latitude, at::longitude, at::serviceAction}, [&](const platform::StoredRow& row) {
      const auto latitude = row.number(0);
      const auto longitude = row.number(1);
      if (latitude && longitude) visit({*latitude, *longitude, row.string(2) == kDisabled});
      return true;
    });
  }

 private:
  bool pass(const std::vector<int>& attributes, const std::function<bool(const platform::StoredRow&)>& visit,
            std::size_t limit = 0) const {
    const auto error = rows_.forEach(attributes, visit, limit);
    if (error) Log::error("Locations:getLocationHistory Unresolved error ", platform::errorAndUserInfo(*error));
    return !error;
  }

  platform::StoredRows rows_;
};

}  // namespace

LocationRecords storedPositions(platform::StoredRows rows) {
  return LocationRecords(std::make_shared<const StoredPositions>(std::move(rows)));
}

LocationRecords::LocationRecords(std::vector<LocationRecord> records)
    : source_(std::make_shared<const HeldPositions>(std::move(records))) {}

LocationRecords::LocationRecords(std::shared_ptr<const Source> source) : source_(std::move(source)) {}

std::size_t LocationRecords::size() const { return source_ ? source_->size() : 0; }

const LocationRecords::Source& LocationRecords::source() const {
  static const auto* none = new HeldPositions({});
  return source_ ? *source_ : *none;
}

std::vector<LocationRecord> LocationRecords::toVector() const {
  std::vector<LocationRecord> records;
  records.reserve(size());
  const bool isWhole = source().forEach([&records](LocationRecord&& record) {
    records.push_back(std::move(record));
    return true;
  });
  if (!isWhole) records.clear();
  return records;
}

}  // namespace tarvo
