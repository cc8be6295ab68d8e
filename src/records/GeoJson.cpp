#include "records/GeoJson.h"

#include "platform/foundation/Text.h"

namespace tarvo {

namespace {

constexpr std::string_view kCollectedStyle =
    R"("properties":{"stroke":"#009F00","strokeColor":"#009F00","marker-color":"#009F00")";
constexpr std::string_view kDisabledStyle =
    R"("properties":{"stroke":"#FF0000","strokeColor":"#FF0000","marker-color":"#000000")";

std::string_view styleOf(bool disabled) { return disabled ? kDisabledStyle : kCollectedStyle; }

/// Writes positions as they come, one behind: the last one looks different.
class FeatureWriter {
 public:
  FeatureWriter(std::string& out, std::string_view geometry) : out_(out), geometry_(geometry) {}

  void add(const RoutePoint& position) {
    if (latest_) write(*latest_);
    latest_ = position;
  }

  /// False when there were no positions: nothing has been written then.
  bool finish() {
    if (!latest_) return false;
    if (featureIsOpen_) {
      out_ += ",";
      // The blank before the comma sets the last position apart; readers of the text rely on it.
      write(*latest_, " ,");
    } else {
      write(*latest_);
    }
    out_ += "]},";
    out_ += styleOf(disabled_);
    out_ += "}}]}";
    return true;
  }

 private:
  void write(const RoutePoint& position) {
    if (!featureIsOpen_) {
      out_ += R"({ "type":"FeatureCollection","features":[{)";
      openFeature(position);
    } else if (position.isDisabled == disabled_) {
      out_ += ",";
    } else {
      out_ += "]},";
      out_ += styleOf(disabled_);
      out_ += "}},{";
      openFeature(position);
    }
    write(position, ",");
  }

  void write(const RoutePoint& position, std::string_view separator) {
    platform::TextBuilder text;
    text.append('[');
    text.append(position.longitude);
    text.append(separator);
    text.append(position.latitude);
    text.append(']');
    out_.append(text.view());
  }

  void openFeature(const RoutePoint& first) {
    out_ += R"("type":"Feature","geometry":{"type":")";
    out_ += geometry_;
    out_ += R"(","coordinates":[)";
    featureIsOpen_ = true;
    disabled_ = first.isDisabled;
  }

  std::string& out_;
  std::string_view geometry_;
  std::optional<RoutePoint> latest_;
  bool featureIsOpen_ = false;
  bool disabled_ = false;  ///< the state of the open feature
};

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

bool appendFeatureCollection(std::string& out, const PositionSource& positions, std::string_view geometry) {
  FeatureWriter writer(out, geometry);
  return positions.forEachPoint([&writer](const RoutePoint& position) { writer.add(position); }) && writer.finish();
}

}  // namespace tarvo
