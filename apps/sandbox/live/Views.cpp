#include "sandbox/live/Views.h"

#include <algorithm>

#include "sandbox/live/Texts.h"

namespace tarvo::sandbox::live {
namespace {

/// At most this much in one answer, whatever was asked for.
constexpr std::int64_t kMostPositions = 20000, kMostRequests = 1000, kMostLines = 5000, kMostOfLedger = 1000;
constexpr std::size_t kMostFaults = 1000;

Reply ok(const Json& json) { return {200, dump(json), {}, {}}; }

/// The number under a key of the query, between 0 (INT64_MIN for a bound) and `most`; `otherwise` when there is none.
std::int64_t number(const Call& call, const char* key, std::int64_t otherwise, std::int64_t most = INT64_MAX) {
  const auto found = call.query.find(key);
  if (found == call.query.end()) return otherwise;
  return std::min(readNumber(found->second).value_or(otherwise), most);
}

std::int64_t limit(const Call& call, std::int64_t most) {
  return std::max<std::int64_t>(number(call, "limit", most, most), 1);
}

std::vector<std::string> split(std::string_view path) {
  std::vector<std::string> parts;
  while (!path.empty()) {
    path.remove_prefix(path.starts_with('/') ? 1 : 0);
    const std::size_t end = std::min(path.find('/'), path.size());
    parts.emplace_back(path.substr(0, end));
    path.remove_prefix(end);
  }
  return parts;
}

Json orNull(const std::optional<double>& number) { return number ? Json(*number) : Json(nullptr); }

Json pairs(const std::vector<std::pair<std::int64_t, std::int64_t>>& all) {
  Json json = Json::array();
  for (const auto& [one, other] : all) json.push_back({one, other});
  return json;
}

}  // namespace

Reply Views::answer(const Call& call) {
  const std::vector<std::string> parts = split(call.path);
  const bool gets = call.method == "GET";
  if (parts.size() == 3 && parts[0] == "channel" && call.method == "POST") return report(call, parts[1], parts[2]);
  if (parts.size() < 2 || parts[0] != "live") return refuse(404, "no such path");
  if (parts.size() == 2 && gets && parts[1] == "state") return state();
  if (parts.size() == 2 && gets && parts[1] == "requests") return requests(call);
  if (parts[1] == "faults" && parts.size() <= 3) return faults(call, parts.size() == 3 ? parts[2] : "");
  if (parts.size() >= 4 && parts.size() <= 5 && parts[1] == "units")
    return ofUnit(call, parts[2], {parts.begin() + 3, parts.end()});
  return refuse(404, "no such path");
}

std::string Views::unitOfChannel(std::string_view path) {
  const std::vector<std::string> parts = split(path);
  if (parts.size() < 2 || parts[0] != "channel" || !service_.store->unit(parts[1])) return {};
  return parts[1];
}

Reply Views::state() {
  const std::int64_t last = service_.store->lastEvent();
  Json units = Json::array();
  for (const Unit& unit : service_.store->units()) units.push_back(unitJson(service_, unit));
  Json json = {
      {"storage", service_.store->name()},     {"units", units},        {"requests", service_.store->requestCount()},
      {"faults", faultsJson(service_.faults)}, {"kinds", faultKinds()}, {"last", last}};
  if (!tiles_.empty()) json["tiles"] = tiles_;
  return ok(json);
}

Reply Views::faults(const Call& call, const std::string& id) {
  Json answer = Json::object();
  if (call.method == "POST" && id.empty()) {
    const auto json = readObject(call.body);
    if (!json) return refuse(400, "expected a JSON object");
    if (service_.faults.standing().size() >= kMostFaults) return refuse(409, "there are too many faults");
    try {
      answer["id"] = service_.faults.add(readRule(*json));
    } catch (const std::runtime_error& error) {
      return refuse(400, error.what());
    }
  } else if (call.method == "DELETE" && id.empty()) {
    service_.faults.clear();
  } else if (call.method != "DELETE" || !service_.faults.remove(readNumber(id).value_or(0))) {
    return refuse(404, "no such fault");
  }
  service_.store->tell("", "faults", "");
  return ok(answer);
}

Reply Views::requests(const Call& call) {
  Json rows = Json::array();
  for (const RequestRow& row : service_.store->requests(number(call, "before", INT64_MAX), limit(call, kMostRequests)))
    rows.push_back(requestJson(row));
  return ok({{"requests", rows}});
}

Reply Views::ofUnit(const Call& call, const std::string& user, const std::vector<std::string>& parts) {
  const auto unit = service_.store->unit(user);
  if (!unit) return refuse(404, "no such unit");
  const std::string& what = parts[0];
  if (parts.size() == 2) {
    if (what != "logs" || call.method != "GET") return refuse(404, "no such path");
    const auto log = service_.store->log(user, parts[1]);
    if (!log) return refuse(404, "no such log");
    return ok(logLines(*log, std::max<std::int64_t>(number(call, "after", 0, INT32_MAX), 0), limit(call, kMostLines)));
  }
  if (what == "push" && call.method == "POST") return push(call, *unit);
  if (call.method != "GET") return refuse(404, "no such path");
  if (what == "positions") return positions(call, user);
  if (what == "trips") return {200, service_.pastTrips(user, number(call, "after", 0), INT64_MAX), {}, {}};
  if (what == "places") return {200, service_.places(user), {}, {}};
  if (what == "prediction") return {200, service_.prediction(user), {}, {}};
  if (what == "ledger") return ledger(user);
  if (what == "health") {
    const auto health = service_.store->health(user);
    return ok(health ? Json{{"at", health->at}, {"health", Json::parse(health->json, nullptr, false)}}
                     : Json::object());
  }
  if (what != "logs") return refuse(404, "no such path");
  Json files = Json::array();
  for (const LogFile& log : service_.store->logs(user))
    files.push_back({{"file", log.file}, {"bytes", log.bytes}, {"received", log.received}});
  return ok({{"logs", files}});
}

Reply Views::push(const Call& call, const Unit& unit) {
  const auto payload = readObject(call.body);
  if (!payload) return refuse(400, "expected a JSON object");
  if (unit.connectedUntil <= now()) return refuse(409, "no host of this unit is connected");
  return ok({{"push", service_.store->tell(unit.uuid, "push", dump(*payload))}});
}

Reply Views::positions(const Call& call, const std::string& unit) {
  const std::int64_t most = limit(call, kMostPositions);
  auto held = service_.store->positions(unit, number(call, "first", 0), number(call, "last", INT64_MAX), most + 1);
  const bool more = static_cast<std::int64_t>(held.size()) > most;
  if (more) held.pop_back();
  Json rows = Json::array();
  for (const Held& one : held)
    rows.push_back({one.id, one.time ? Json(static_cast<std::int64_t>(*one.time * 1000)) : Json(nullptr),
                    orNull(one.lon), orNull(one.lat), orNull(one.accuracy), orNull(one.speed)});
  return ok({{"positions", rows}, {"more", more}});
}

Reply Views::ledger(const std::string& unit) {
  const Ledger ledger = service_.store->ledger(unit, kMostOfLedger);
  return ok({{"count", ledger.count},
             {"highest", ledger.highest},
             {"holes", pairs(ledger.holes)},
             {"repeats", pairs(ledger.repeats)}});
}

Reply Views::report(const Call& call, const std::string& unit, std::string_view what) {
  const auto json = readObject(call.body);
  if (!json) return refuse(400, "expected a JSON object");
  if (what == "received") {
    if (!json->contains("push")) return refuse(400, "no push");
    service_.store->tell(unit, "received", dump({{"unit", unit}, {"push", (*json)["push"]}, {"state", "received"}}));
  } else if (what == "health") {
    service_.store->setHealth(unit, {now(), dump(*json)});
    service_.store->tell(unit, "health", dump({{"unit", unit}}));
  } else if (what == "told") {
    if (!json->contains("what")) return refuse(400, "nothing was told");
    service_.store->tell(unit, "told", dump({{"unit", unit}, {"what", (*json)["what"]}, {"at", now()}}));
  } else {
    return refuse(404, "no such path");
  }
  return ok(Json::object());
}

}  // namespace tarvo::sandbox::live
