#pragma once

// The page; and the derivation, or what stands in for it in a tree that does not have it: nothing is derived.
#include "sandbox/page/Page.h"

#if __has_include("sandbox/derive/Derive.h")
#include "sandbox/derive/Derive.h"
#else
#include "sandbox/derive/Records.h"

namespace tarvo::sandbox::derive {
struct Changes {
  bool trips = false, places = false, prediction = false;
};
struct Totals {
  std::int64_t trips = 0, places = 0;
};
inline Changes takeIn(Records&, const std::vector<Point>&) { return {}; }
inline void forgetHistory(Records&) {}
inline void forgetGeoProfile(Records&) {}
inline Totals totals(Records&) { return {}; }
inline std::string counters(Records&) {
  return R"({"success":true,"last_prediction_id":0,"last_pasttrip_id":0,"last_poi_id":0})";
}
inline std::string pastTrips(Records&, std::int64_t, std::int64_t) { return R"({"success":true,"trips":[]})"; }
inline std::string places(Records&) { return R"({"success":true,"pois":[]})"; }
inline std::string prediction(Records&) { return R"({"success":false,"error":"no prediction"})"; }
}  // namespace tarvo::sandbox::derive
#endif
