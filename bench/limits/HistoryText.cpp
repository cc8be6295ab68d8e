#include "limits/HistoryText.h"

namespace tarvo::bench {
namespace {

constexpr std::string_view kFeature = R"("type":"Feature","geometry":{"type":"LineString","coordinates":[)";
constexpr std::string_view kCollected =
    R"("properties":{"stroke":"#009F00","strokeColor":"#009F00","marker-color":"#009F00")";
constexpr std::string_view kDisabled =
    R"("properties":{"stroke":"#FF0000","strokeColor":"#FF0000","marker-color":"#000000")";

struct Point {
  double longitude = 0, latitude = 0;
};

void addPoint(TextBuffer& text, const Point& point, std::string_view separator) {
  text.add("[");
  text.add(point.longitude);
  text.add(separator);
  text.add(point.latitude);
  text.add("]");
}

}  // namespace

std::string_view historyText(RawStore& store, TextBuffer& text) {
  // In the order of the keys, which is that of the index, the range as a filter: sorting would cost more than reading.
  RawStatement select(store,
                      "SELECT longitude, latitude, serviceAction FROM Locations "
                      "WHERE +eventTimestamp >= -62135596800.0 AND +eventTimestamp <= 64092211200.0 ORDER BY _key");
  text.clear();
  text.add(R"({ "type":"FeatureCollection","features":[{)");
  text.add(kFeature);
  bool disabled = false;
  bool disabledBefore = false;  ///< the last position
  std::size_t bytesBefore = 0;
  std::int64_t positions = 0;
  Point point;
  for (; select.step(); ++positions) {
    point = {select.real(0), select.real(1)};
    const bool isDisabled = select.text(2) == "loc_disabled";
    disabledBefore = disabled;
    bytesBefore = text.view().size();
    if (positions == 0) {
      disabled = isDisabled;
    } else if (isDisabled == disabled) {
      text.add(",");
    } else {
      text.add("]},");
      text.add(disabled ? kDisabled : kCollected);
      text.add("}},{");
      text.add(kFeature);
      disabled = isDisabled;
    }
    addPoint(text, point, ",");
  }
  // The last position opens no feature, and has its blank.
  if (positions > 1) {
    text.takeBack(text.view().size() - bytesBefore);
    disabled = disabledBefore;
    text.add(",");
    addPoint(text, point, " ,");
  }
  text.add("]},");
  text.add(disabled ? kDisabled : kCollected);
  text.add("}}]}");
  return text.view();
}

}  // namespace tarvo::bench
