#pragma once

// The derivation and the page, or what stands in for them in a tree that does not have them: nothing is derived, and
// the page says so. The build tells which there are.
#ifdef TARVO_SANDBOX_DERIVES
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

#ifdef TARVO_SANDBOX_PAGE
#include "sandbox/page/Page.h"
#else
#include <string>
#include <string_view>

namespace tarvo::sandbox::page {
struct File {
  std::string_view path, type, bytes;
};
inline const File* find(std::string_view path) {
  static constexpr File kOnly{"/", "text/html; charset=utf-8", "<!doctype html><title>sandbox</title>no page\n"};
  return path == "/" ? &kOnly : nullptr;
}
inline std::string policy(std::string_view) { return "default-src 'self'"; }
}  // namespace tarvo::sandbox::page
#endif
