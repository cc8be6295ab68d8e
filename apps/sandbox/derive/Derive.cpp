#include "sandbox/derive/Derive.h"

#include <nlohmann/json.hpp>

namespace tarvo::sandbox::derive {

Changes takeIn(Records&, const std::vector<Point>&) { return {}; }
void forgetHistory(Records&) {}
void forgetGeoProfile(Records&) {}
Totals totals(Records&) { return {}; }
std::string counters(Records&) {
  return R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})";
}
std::string pastTrips(Records&, std::int64_t, std::int64_t) { return R"({"success":true,"trips":[]})"; }
std::string places(Records&) { return R"({"success":true,"pois":[]})"; }
std::string prediction(Records&) { return R"({"success":false,"error":"no prediction"})"; }

}  // namespace tarvo::sandbox::derive
