#include "sandbox/faults/Spoil.h"

#include <time.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kDripSeconds = 10, kSkewSeconds = 3600;

/// Each value becomes one of another type; objects and arrays stay, so that it is their members that are wrong.
void changeTypes(Json& json) {
  if (json.is_structured() && !json.empty()) {
    for (Json& one : json) changeTypes(one);
  } else if (json.is_number()) {
    json = json.dump();
  } else {
    json = json.is_boolean() ? Json("true") : Json(0);
  }
}

std::string formatted(const char* format, std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[64];
  return {text, std::strftime(text, sizeof text, format, &utc)};
}

/// Shifts what is written as a time of the wire, "2024-06-15T10:11:12.034+0000"; its fraction and zone stay.
void shiftTimes(Json& json, std::int64_t seconds) {
  constexpr const char* kFormat = "%Y-%m-%dT%H:%M:%S";
  if (json.is_structured())
    for (Json& one : json) shiftTimes(one, seconds);
  if (!json.is_string()) return;
  const auto& text = json.get_ref<const std::string&>();
  std::tm utc{};
  const char* rest = strptime(text.c_str(), kFormat, &utc);
  if (rest != nullptr && *rest == '.') json = formatted(kFormat, timegm(&utc) + seconds) + rest;
}

void changeBody(Reply& reply, void (*change)(Json&, std::int64_t), std::int64_t by) {
  Json json = Json::parse(reply.body, nullptr, false);
  change(json, by);
  reply.body = json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool hasBody(int status) { return status != 204 && status != 304; }

}  // namespace

std::optional<Reply> replyInstead(const Rule& fault) {
  Reply reply;
  reply.fault = nameOf(fault.kind);
  reply.spoilt = true;
  if (fault.kind == FaultKind::dropBefore) {
    reply.manner = Reply::Manner::drop;
    return reply;
  }
  if (fault.kind != FaultKind::status && fault.kind != FaultKind::redirect) return std::nullopt;
  const bool redirects = fault.kind == FaultKind::redirect;
  reply.status = fault.status.value_or(redirects ? 302 : 503);
  if (redirects || fault.location) reply.headers.emplace_back("Location", fault.location.value_or("/"));
  if (fault.retryAfter) reply.headers.emplace_back("Retry-After", std::to_string(*fault.retryAfter));
  if (hasBody(reply.status)) reply.body = fault.body.value_or(refuse(reply.status, "planned fault").body);
  return reply;
}

void spoil(Reply& reply, const Rule& fault) {
  reply.fault = nameOf(fault.kind);
  reply.spoilt = fault.kind != FaultKind::delay && fault.kind != FaultKind::hang;
  switch (fault.kind) {
    case FaultKind::dropAfter:
      reply.manner = Reply::Manner::drop;
      break;
    case FaultKind::half:
      reply.manner = Reply::Manner::half;
      break;
    case FaultKind::drip:
      reply.manner = Reply::Manner::drip;
      reply.seconds = fault.delay.value_or(kDripSeconds);
      break;
    case FaultKind::garbage:
      reply.body = fault.body.value_or("\xff\xfe{]\x01 this is no JSON");
      break;
    case FaultKind::types:
      changeBody(
          reply, [](Json& json, std::int64_t) { changeTypes(json); }, 0);
      break;
    case FaultKind::skew: {
      const auto by = static_cast<std::int64_t>(fault.delay.value_or(kSkewSeconds));
      const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
      reply.headers.emplace_back("Date", formatted("%a, %d %b %Y %H:%M:%S GMT", now + by));
      changeBody(reply, shiftTimes, by);
      break;
    }
    default:  // the request has waited, and is answered as usual
      break;
  }
}

}  // namespace tarvo::sandbox
