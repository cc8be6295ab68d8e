#include <tarvo/LocationRecords.h>

#include <algorithm>
#include <utility>

#include "records/Positions.h"
#include "settings/Names.h"

namespace tarvo {
namespace {

class HeldPositions : public PositionSource {
 public:
  explicit HeldPositions(std::vector<LocationRecord> records) : records_(std::move(records)) {}

  std::size_t size() const override { return records_.size(); }

  bool forEach(const std::function<bool(LocationRecord&&)>& visit, const LocationRecords::Place& place,
               std::size_t limit) const override {
    const std::size_t end = limit > 0 ? std::min(size(), place.read + limit) : size();
    for (std::size_t i = place.read; i < end; ++i)
      if (!visit(LocationRecord(records_[i]))) break;
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
        visit({*record.latitude, *record.longitude, record.serviceAction == action::kDisabled});
    return true;
  }

 private:
  std::vector<LocationRecord> records_;
};

}  // namespace

const PositionSource& PositionSource::of(const LocationRecords& records) {
  static const auto* none = new HeldPositions({});
  return records.source_ ? *records.source_ : *none;
}

LocationRecords PositionSource::records(std::shared_ptr<const PositionSource> source) {
  LocationRecords records;
  records.source_ = std::move(source);
  return records;
}

LocationRecords::LocationRecords(std::vector<LocationRecord> records)
    : source_(std::make_shared<const HeldPositions>(std::move(records))) {}

std::size_t LocationRecords::size() const { return PositionSource::of(*this).size(); }

std::vector<LocationRecord> LocationRecords::toVector() const {
  std::vector<LocationRecord> records;
  records.reserve(size());
  const bool isWhole = PositionSource::of(*this).forEach([&records](LocationRecord&& record) {
    records.push_back(std::move(record));
    return true;
  });
  if (!isWhole) records.clear();
  return records;
}

std::optional<std::vector<LocationRecord>> LocationRecords::next(Place& place, std::size_t count) const {
  std::vector<LocationRecord> records;
  count = std::min(count, size() - std::min(size(), place.read));
  if (count == 0) return records;
  Place reached = place;
  const auto take = [&](LocationRecord&& record) {
    reached.alike = record.index == reached.index ? reached.alike + 1 : 1;
    reached.index = record.index;
    ++reached.read;
    records.push_back(std::move(record));
    return true;
  };
  if (!PositionSource::of(*this).forEach(take, place, count)) return std::nullopt;
  place = reached;
  return records;
}

std::optional<platform::CLLocation> fixOf(const LocationRecord& position, Missing missing) {
  if (!position.latitude || !position.longitude || !position.locationTimestamp) return std::nullopt;
  const bool isWhole = position.altitude && position.horizontalAccuracy && position.verticalAccuracy &&
                       position.course && position.speed;
  if (!isWhole && missing == Missing::givesNoFix) return std::nullopt;
  platform::CLLocation fix;
  fix.coordinate = {*position.latitude, *position.longitude};
  fix.altitude = position.altitude.value_or(0);
  fix.horizontalAccuracy = position.horizontalAccuracy.value_or(-1);
  fix.verticalAccuracy = position.verticalAccuracy.value_or(-1);
  fix.course = position.course.value_or(-1);
  fix.speed = position.speed.value_or(-1);
  fix.timestamp = *position.locationTimestamp;
  if (position.floor && std::in_range<int>(*position.floor)) fix.floor = static_cast<int>(*position.floor);
  return fix;
}

}  // namespace tarvo
