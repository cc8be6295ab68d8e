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
  // In the order of the index, the range as a filter: sorting a million rows would cost more than reading them.
  RawStatement select(
      store,
      "SELECT longitude, latitude, serviceAction FROM Locations "
      "WHERE +eventTimestamp >= -62135596800.0 AND +eventTimestamp <= 64092211200.0 ORDER BY \"index\"");
  text.clear();
  text.add(R"({ "type":"FeatureCollection","features":[{)");
  text.add(kFeature);
  bool disabled = false;
  bool first = true;
  bool lastFollowsComma = false;
  std::size_t lastBytes = 0;
  Point point;
  while (select.step()) {
    point = {select.real(0), select.real(1)};
    const bool isDisabled = select.text(2) == "loc_disabled";
    const std::size_t before = text.view().size();
    lastFollowsComma = false;
    if (first) {
      disabled = isDisabled;
      first = false;
    } else if (isDisabled == disabled) {
      text.add(",");
      lastFollowsComma = true;
    } else {
      text.add("]},");
      text.add(disabled ? kDisabled : kCollected);
      text.add("}},{");
      text.add(kFeature);
      disabled = isDisabled;
    }
    addPoint(text, point, ",");
    lastBytes = text.view().size() - before;
  }
  // The last position never opens a feature, and has its blank.
  if (lastFollowsComma) {
    text.takeBack(lastBytes - 1);
    addPoint(text, point, " ,");
  }
  text.add("]},");
  text.add(disabled ? kDisabled : kCollected);
  text.add("}}]}");
  return text.view();
}

}  // namespace tarvo::bench
