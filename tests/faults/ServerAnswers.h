#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "faults/ServerRows.h"
#include "platform/foundation/Text.h"

// What answers can be made of: each field of each of them in each wrong form, as rows too.

namespace tarvo::faults {

using platform::concat;

inline constexpr const char* kEndpoints[] = {"users",
                                             "positions",
                                             "predictions",
                                             "pasttrips",
                                             "pois",
                                             "userconf",
                                             "uplog",
                                             "tokens",
                                             "subscriptions/register",
                                             "tags/set",
                                             "tags/unset",
                                             "subscriptions/unregister",
                                             "resetbackend",
                                             "resetgeoprofile",
                                             "elsewhere"};

struct Field {
  const char *endpoint, *key;
  /// The value is missing, of another type, null, huge, there twice: the SDK goes on, Stops, or has no User yet.
  const char* fates;
};
inline const Field kFields[] = {{"users", "success", "USSSS"},
                                {"users", "results", "UUU-U"},
                                {"users", "uuid", "USSUS"},
                                {"users", "creation_date", "USS-S"},
                                {"users", "secretkey", "U--U-"},
                                {"positions", "success", "-SSSS"},
                                {"positions", "last_prediction_id", "-SSSS"},
                                {"positions", "last_pasttrip_id", "-SSSS"},
                                {"positions", "last_poi_id", "-SSSS"},
                                {"predictions", "success", "-SSSS"},
                                {"predictions", "prediction_id", "-SSSS"},
                                {"predictions", "start_time", "-SS-S"},
                                {"predictions", "arrival_time", "-SS-S"},
                                {"predictions", "probability", "-SS-S"},
                                {"predictions", "destination_lon", "-SS-S"},
                                {"predictions", "destination_lat", "-SS-S"},
                                {"predictions", "route", "-SS-S"},
                                {"predictions", "destination_json", "-SS-S"},
                                {"predictions", "start_name", "-SS-S"},
                                {"predictions", "arrival_name", "-SS-S"},
                                {"predictions", "duration", "-SS-S"},
                                {"pasttrips", "success", "-SSSS"},
                                {"pasttrips", "trips", "-SS-S"},
                                {"pasttrips", "pasttrip_id", "SSSSS"},
                                {"pasttrips", "departure_lat", "-----"},
                                {"pasttrips", "start_time", "-----"},
                                {"pasttrips", "route", "-----"},
                                {"pois", "success", "-SSSS"},
                                {"pois", "pois", "-SS-S"},
                                {"pois", "poi_id", "-----"},
                                {"pois", "lat", "-----"},
                                {"pois", "zone_geo_json", "-----"},
                                {"userconf", "success", "-SSSS"},
                                {"userconf", "results", "-----"},
                                {"userconf", "log_level", "-----"},
                                {"uplog", "success", "-----"},
                                {"uplog", "results", "-----"},
                                {"uplog", "file", "-----"}};
inline constexpr const char* kForms[] = {"missing", "another type", "null", "huge", "twice"};
/// What can become of any call, in the order of these: no answer, another status, nonsense.
inline constexpr const char* kWhole[] = {"no answer", "status 500", "no JSON"};

inline std::string goodAnswer(std::string_view endpoint, bool withDownloads) {
  if (endpoint == "users")
    return R"({"success":true,"results":[{"uuid":"u-1","creation_date":"2024-06-15","secretkey":"s3cret"}]})";
  if (endpoint == "positions")
    return withDownloads ? R"({"success":true,"last_prediction_id":8,"last_pasttrip_id":7,"last_poi_id":3})" : kGood;
  if (endpoint == "predictions")
    return R"({"success":true,"prediction_id":8,"start_time":"s","arrival_time":"a","probability":1,)"
           R"("destination_lon":2.5,"destination_lat":48,"route":{"r":1},"destination_json":{"d":2},)"
           R"("start_name":"Home","arrival_name":"Work","duration":12.5})";
  if (endpoint == "pasttrips")
    return R"({"success":true,"trips":[{"pasttrip_id":7,"departure_lat":48,"departure_lon":11,"arrival_lat":48,)"
           R"("arrival_lon":11,"start_time":"2024-06-15T10:00:00.000+0000","route":{"type":"LineString"}}]})";
  if (endpoint == "pois")
    return R"({"success":true,"pois":[{"poi_id":3,"lat":48,"lon":11,"point_geo_json":{},"zone_geo_json":{"z":1}}]})";
  if (endpoint == "userconf") return R"({"success":true,"results":[{"log_level":10}]})";
  if (endpoint == "uplog") return R"({"success":true,"results":"uploaded","file":"TarvoLog_2024-06-01_u_IOS.txt"})";
  return R"({"success":true})";
}

/// The answer with that form of that field.
inline std::string answerWith(const Field& field, std::size_t form) {
  std::string answer = goodAnswer(field.endpoint, true);
  const std::string key = concat("\"", field.key, "\":");
  const auto begin = answer.find(key) + key.size();
  auto end = begin;
  for (int depth = 0; depth > 0 || (answer[end] != ',' && answer[end] != '}'); ++end)
    depth += answer[end] == '[' || answer[end] == '{' ? 1 : answer[end] == ']' || answer[end] == '}' ? -1 : 0;
  const std::string value = answer.substr(begin, end - begin);
  const char* other = value[0] == '"' ? "[7]" : value[0] == '[' ? "[1]" : "\"other\"";
  std::string huge = "1e300";
  if (value[0] == '"') huge = '"' + std::string(1 << 20, 'x') + '"';
  if (value[0] == '[') huge = "[" + repeated(value.substr(1, value.size() - 2) + ",", 30) + value.substr(1);
  if (value[0] == '{') huge = "{" + repeated("\"more\":[0,1],", 10000) + value.substr(1);
  const std::string forms[] = {{}, other, "null", huge, value + "," + key + other};
  if (form == 0) return answer.replace(answer.find(key) + 1, 1, "_");
  return answer.replace(begin, end - begin, forms[form]);
}

inline std::vector<Row> allRows() {
  std::vector<Row> rows = rowsOfTransfers();
  const auto add = [&rows](const std::string& endpoint, const std::string& field, const char* form, Fate byDefault,
                           Fate confirmed, const std::string& logged, const std::string& reply) {
    Row row{concat(endpoint, " ", field, " ", form), {}, byDefault, confirmed, logged};
    row.endpoint = endpoint;
    row.field = field;
    row.form = form;
    row.reply = reply;
    rows.push_back(std::move(row));
  };
  for (const Field& field : kFields)
    for (std::size_t form = 0; form < std::size(kForms); ++form) {
      const char fate = field.fates[form];
      const std::string name = concat(field.endpoint, field.key);
      const bool remains = name == "positionssuccess" || (name.starts_with("users") && fate != '-');
      const auto line = form == 0 ? "Fatal error: no past trip has an identifier"
                                  : concat("Fatal error: the backend's \"", field.key, "\" is no ");
      add(field.endpoint, field.key, kForms[form],
          fate == 'S'   ? stops
          : fate == 'U' ? stays
                        : acknowledged,
          remains ? stays : acknowledged, fate == 'S' ? line : "", httpReply(200, answerWith(field, form)));
    }
  const std::string replies[] = {"", httpReply(500), httpReply(200, "nonsense")};
  for (const std::string endpoint : kEndpoints)
    for (std::size_t form = 0; form < std::size(kWhole); ++form) {
      const Fate fate = endpoint == "users" ? stays : acknowledged;
      if (endpoint != "positions" && endpoint != "elsewhere")
        add(endpoint, "", kWhole[form], fate, fate, "", replies[form]);
    }
  return rows;
}

inline const std::vector<Row>& rows() {
  static const auto* all = new std::vector<Row>(allRows());
  return *all;
}

}  // namespace tarvo::faults
