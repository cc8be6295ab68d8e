#include "store/PointOfInterest.h"

#include <utility>

#include "log/Log.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "store/Attributes.h"

namespace tarvo {

namespace at = attribute::points_of_interest;
using platform::errorAndUserInfo;
using platform::Value;

namespace {

/// The text of the value under the attribute's name, or why there is none; the attribute then stays unset.
std::optional<platform::Error> setGeoJson(PointOfInterest& added, const platform::Dictionary& poi,
                                          at::Position attribute) {
  const Value* found = platform::find(poi, at::kAll[attribute].name);
  static const auto& none = *new Value;
  const Value& geoJson = found ? *found : none;
  auto text = platform::serializeJson(geoJson);
  if (!text) {
    Log::debug("PointOfInterest:addPOI:Failed to load GEOJSON: ", text.error().localizedDescription);
    return text.error();
  }
  added.setString(attribute, *text);
  // Both texts are announced as "route".
  Log::debug("PointOfInterest:addPOI [net] [succes] route:", geoJson);
  return std::nullopt;
}

}  // namespace

std::shared_ptr<PointOfInterest> PointOfInterest::addPOI(const platform::Dictionary& poi, Context& context) {
  Log::debug("PointOfInterest:addPOI [net] [succes] called ", poi);
  const auto added = insert(context);
  if (!added) return nullptr;
  if (const Value* latitude = platform::find(poi, "lat")) added->setNumber(at::latitude, latitude->asDouble());
  if (const Value* longitude = platform::find(poi, "lon")) added->setNumber(at::longitude, longitude->asDouble());
  if (const Value* id = platform::find(poi, "poi_id")) added->setInteger(at::poi_id, id->asInteger());
  setGeoJson(*added, poi, at::point_geo_json);
  if (const auto error = setGeoJson(*added, poi, at::zone_geo_json))
    Log::error("PointOfInterest:addPOI Unresolved error ", errorAndUserInfo(*error));
  return added;
}

PointOfInterest::List PointOfInterest::getPOIs(Context& context) {
  Log::debug("PointOfInterest:getPOIs called");
  auto pois = fetch(context, "PointOfInterest:getPOIs Unresolved error ", {.sortDescriptors = {{"poi_id", false}}});
  if (!pois) return {};
  std::string list = "[";
  for (const auto& poi : *pois) list += platform::concat(list.size() > 1 ? ", " : "", poi->description());
  Log::debug("PointOfInterest:getPOIs pois ", pois->size(), ": ", list, "]");
  return std::move(*pois);
}

void PointOfInterest::removePOIs(Context& context) {
  remove(context, "LastTrips removeData Unresolved error ", "removePOIs removeData pasttrip_id ", at::poi_id);
}

PointOfInterestRecord PointOfInterest::record() const {
  PointOfInterestRecord record;
  record.poi_id = integer(at::poi_id);
  record.latitude = number(at::latitude);
  record.longitude = number(at::longitude);
  record.point_geo_json = text(at::point_geo_json);
  record.zone_geo_json = text(at::zone_geo_json);
  return record;
}

std::string PointOfInterest::description() const {
  return platform::concat("{poi_id:", integer(at::poi_id), " lat:", number(at::latitude),
                          " lon:", number(at::longitude), "}");
}

}  // namespace tarvo
