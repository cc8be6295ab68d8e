#include "records/GeoJson.h"

#include "platform/foundation/Text.h"

namespace tarvo {

using platform::append;

namespace {

constexpr std::string_view kCollectedStyle =
    R"("properties":{"stroke":"#009F00","strokeColor":"#009F00","marker-color":"#009F00")";
constexpr std::string_view kDisabledStyle =
    R"("properties":{"stroke":"#FF0000","strokeColor":"#FF0000","marker-color":"#000000")";

std::string_view styleOf(bool disabled) { return disabled ? kDisabledStyle : kCollectedStyle; }

void openFeature(std::string& out, std::string_view geometry) {
  append(out, R"("type":"Feature",)");
  append(out, R"("geometry":{)");
  append(out, R"("type":")");
  append(out, geometry);
  append(out, R"(",)");
  append(out, R"("coordinates":[)");
}

void appendPosition(std::string& out, const LocationRecord& position, std::string_view separator) {
  append(out, "[");
  append(out, *position.longitude);
  append(out, separator);
  append(out, *position.latitude);
  append(out, "]");
}

bool hasCoordinates(const LocationRecord& position) { return position.longitude && position.latitude; }
bool isDisabled(const LocationRecord& position) { return position.serviceAction == "loc_disabled"; }

}  // namespace

const platform::Value* memberOf(const platform::Value* object, std::string_view key) {
  const platform::Dictionary* members = object ? object->asDictionary() : nullptr;
  return members ? platform::find(*members, key) : nullptr;
}

platform::Array valuesUnder(const platform::Array& objects, std::string_view key) {
  platform::Array values;
  values.reserve(objects.size());
  for (const platform::Value& object : objects) {
    const platform::Value* value = memberOf(&object, key);
    values.push_back(value ? *value : platform::Value());
  }
  return values;
}

std::optional<platform::CLLocationCoordinate2D> coordinateOf(const platform::Value& position) {
  const platform::Array* numbers = position.asArray();
  if (numbers == nullptr || numbers->size() < 2) return std::nullopt;
  const auto longitude = (*numbers)[0].asDouble();
  const auto latitude = (*numbers)[1].asDouble();
  if (!longitude || !latitude) return std::nullopt;
  return platform::CLLocationCoordinate2D{*latitude, *longitude};
}

bool appendFeatureCollection(std::string& out, const std::vector<LocationRecord>& positions,
                             std::string_view geometry) {
  const LocationRecord* last = nullptr;
  for (const LocationRecord& position : positions)
    if (hasCoordinates(position)) last = &position;
  if (last == nullptr) return false;

  append(out, R"({ "type":"FeatureCollection","features":[{)");
  bool disabled = false;
  bool featureIsOpen = false;
  for (const LocationRecord& position : positions) {
    if (!hasCoordinates(position)) continue;
    if (!featureIsOpen) {
      openFeature(out, geometry);
      appendPosition(out, position, ",");
      disabled = isDisabled(position);
      featureIsOpen = true;
    } else if (&position == last) {
      // The blank before the comma sets the last position apart; readers of the text rely on it.
      append(out, ",");
      appendPosition(out, position, " ,");
    } else if (isDisabled(position) == disabled) {
      append(out, ",");
      appendPosition(out, position, ",");
    } else {
      append(out, "]},");
      append(out, styleOf(disabled));
      append(out, "}},{");
      openFeature(out, geometry);
      appendPosition(out, position, ",");
      disabled = !disabled;
    }
  }
  append(out, "]},");
  append(out, styleOf(disabled));
  append(out, "}}]}");
  return true;
}

}  // namespace tarvo
