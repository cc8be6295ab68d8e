#include "sandbox/live/Texts.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "sandbox/derive/Derive.h"
#include "sandbox/wire/BoundedJson.h"

namespace tarvo::sandbox::live {
namespace {

constexpr std::size_t kLargestObject = 64 * 1024;

Json orNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

/// "[[2024-06-15T10:00:01.250Z]]:[DEBUG]:message"
Json logLine(std::string_view line) {
  constexpr std::string_view kAfterTime = "]]:[", kAfterLevel = "]:";
  const std::size_t time = line.find(kAfterTime);
  const std::size_t begin = time == line.npos ? time : time + kAfterTime.size();
  const std::size_t level = begin == line.npos ? begin : line.find(kAfterLevel, begin);
  if (!line.starts_with("[[") || level == line.npos) return {{"text", line}};
  return {{"time", line.substr(2, time - 2)},
          {"level", line.substr(begin, level - begin)},
          {"text", line.substr(level + kAfterLevel.size())}};
}

}  // namespace

std::int64_t now() {
  using std::chrono::milliseconds;
  return std::chrono::duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string dump(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

std::optional<Json> readObject(std::string_view text) {
  if (text.size() > kLargestObject) return std::nullopt;
  try {
    Json json = parseBoundedJson<Json>(text);
    if (json.is_object()) return json;
  } catch (const std::runtime_error&) {  // said by the answer
  }
  return std::nullopt;
}

Json unitJson(Service& service, const Unit& unit) {
  derive::Totals totals;
  service.store->look(unit.uuid, [&](derive::Records& records) { totals = derive::totals(records); });
  Json json = {{"uuid", unit.uuid},
               {"name", unit.name},
               {"positions", unit.positions},
               {"missing", std::max<std::int64_t>(unit.highest - unit.positions + 1, 0)},
               {"repeats", unit.repeats},
               {"lastSeen", unit.lastSeen},
               {"connected", unit.connectedUntil > now()},
               {"trips", totals.trips},
               {"places", totals.places}};
  if (unit.newest) {
    json["lon"] = unit.newest->lon;
    json["lat"] = unit.newest->lat;
    json["time"] = static_cast<std::int64_t>(unit.newest->time * 1000);
  }
  return json;
}

Json requestJson(const RequestRow& request) {
  return {{"n", request.n},
          {"at", request.at},
          {"unit", orNull(request.unit)},
          {"method", request.method},
          {"path", request.path},
          {"status", request.status},
          {"bytes", request.bytes},
          {"fault", orNull(request.fault)}};
}

Json faultsJson(Faults& faults) {
  Json all = Json::array();
  for (const Faults::Standing& one : faults.standing()) {
    Json json = {{"id", one.id}};
    json.update(ruleJson(one.rule));
    if (one.left) json["seconds"] = std::round(*one.left * 1000) / 1000;
    json["met"] = one.met;
    all.push_back(json);
  }
  return all;
}

Json logLines(std::string_view content, std::int64_t after, std::int64_t limit) {
  Json lines = Json::array();
  for (std::int64_t n = 0; !content.empty(); ++n) {
    if (n >= after + limit) return {{"lines", lines}, {"more", true}};
    const std::size_t end = content.find('\n');
    if (n >= after) lines.push_back(logLine(content.substr(0, end)));
    content.remove_prefix(end == content.npos ? content.size() : end + 1);
  }
  return {{"lines", lines}, {"more", false}};
}

}  // namespace tarvo::sandbox::live
