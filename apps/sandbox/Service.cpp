#include "sandbox/Service.h"

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "sandbox/derive/Derive.h"
#include "sandbox/faults/Spoil.h"
#include "sandbox/wire/Bodies.h"
#include "sandbox/wire/Logs.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::json;

std::string text(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

Reply reply(int status, const Json& body) { return {status, text(body), {}, {}}; }

Reply reply(std::string body) { return {200, std::move(body), {}, {}}; }

Reply success() { return reply(200, {{"success", true}}); }

std::optional<std::string> queryValue(const Call& call, const char* key) {
  const auto [first, end] = call.query.equal_range(key);
  if (first == end || std::next(first) != end) return std::nullopt;
  return first->second;
}

}  // namespace

Reply refuse(int status, const std::string& why) { return reply(status, {{"success", false}, {"error", why}}); }

struct Service::Route {
  std::string_view method, path;
  Reply (Service::*handle)(const Call&, const std::string& user);
};

const Service::Route Service::kRoutes[] = {
    {"POST", "users", &Service::users},
    {"POST", "positions", &Service::positions},
    {"POST", "uplog", &Service::uplog},
    {"POST", "tokens", &Service::form},
    {"POST", "tags/set", &Service::form},
    {"POST", "tags/unset", &Service::form},
    {"POST", "subscriptions/register", &Service::form},
    {"POST", "subscriptions/unregister", &Service::form},
    {"GET", "userconf", &Service::userconf},
    {"GET", "predictions", &Service::predictions},
    {"GET", "pasttrips", &Service::pasttrips},
    {"GET", "pois", &Service::pois},
    {"GET", "resetbackend", &Service::resetbackend},
    {"GET", "resetgeoprofile", &Service::resetgeoprofile},
};

Service::Service(Account customer, std::unique_ptr<Store> records)
    : account(std::move(customer)), store(std::move(records)), base_("/api/v1/" + account.clientID + "/") {}

bool Service::isEndpoint(std::string_view path) {
  return std::any_of(std::begin(kRoutes), std::end(kRoutes), [&](const Route& route) { return route.path == path; });
}

const Service::Route* Service::find(const Call& call) const {
  if (!call.path.starts_with(base_)) return nullptr;
  const std::string_view path = call.path.substr(base_.size());
  const auto found = std::find_if(std::begin(kRoutes), std::end(kRoutes), [&](const Route& route) {
    return route.path == path && route.method == call.method;
  });
  return found == std::end(kRoutes) ? nullptr : found;
}

Reply Service::answer(const Call& call) {
  const Route* route = find(call);
  if (route == nullptr) return refuse(404, "no such path");
  const auto fault = faults.meet(std::string(route->path));
  if (!fault) return handle(call, *route);
  if (auto reply = replyInstead(*fault)) return *std::move(reply);
  Reply reply = handle(call, *route);
  spoil(reply, *fault);
  return reply;
}

Reply Service::handle(const Call& call, const Route& route) {
  const auto credentials = readBasicCredentials(call.authorization);
  if (route.handle == &Service::users) {
    if (!isAccount(call.authorization)) return refuse(401, "wrong API key or secret");
  } else if (!credentials || !store->knows(*credentials)) {
    return refuse(401, "unknown user");
  }
  Reply reply = (this->*route.handle)(call, credentials->name);
  if (route.handle != &Service::users) reply.user = credentials->name;
  return reply;
}

bool Service::isAccount(std::string_view authorization) const {
  return readBasicCredentials(authorization) == Credentials{account.apiKey, account.apiSecret};
}

Reply Service::users(const Call& call, const std::string&) {
  std::string why;
  const auto device = readDevice(call.body, why);
  if (!device) return refuse(400, why);
  const Identity user = store->identify(*device);
  const Json result = {{"uuid", user.uuid}, {"creation_date", user.creationDate}, {"secretkey", user.secret}};
  return reply(200, {{"success", true}, {"results", Json::array({result})}});
}

Reply Service::positions(const Call& call, const std::string& user) {
  std::string why;
  const auto batch = readPositions(call.body, user, why);
  if (!batch) return refuse(400, why);
  std::string counters;
  store->change(user, [&](UserRecords& records) {
    const derive::Changes changes = derive::takeIn(records, records.add(*batch));
    counters = derive::counters(records);
    Json about = {{"unit", user}};
    if (changes.trips) records.tell("trips", about.dump());
    if (changes.places) records.tell("places", about.dump());
    if (changes.prediction) records.tell("prediction", about.dump());
    about.update({{"first", batch->front().id}, {"last", batch->back().id}, {"count", batch->size()}});
    records.tell("batch", about.dump());
  });
  return reply(canned.given() ? canned.counters(user) : std::move(counters));
}

Reply Service::uplog(const Call& call, const std::string& user) {
  if (call.contentType != kLogContentType) return refuse(400, "expected " + std::string(kLogContentType));
  std::string why;
  const auto log = readLogUpload(call.body, why);
  if (!log) return refuse(400, why);
  store->change(user, [&](UserRecords& records) {
    records.addLog(log->file, log->content);
    records.tell("log", text({{"unit", user}, {"file", log->file}}));
  });
  return reply(200, {{"success", true}, {"results", "uploaded"}, {"file", log->file}});
}

Reply Service::form(const Call& call, const std::string& user) {
  const std::string_view path = call.path.substr(base_.size());
  const auto form = std::find_if(forms().begin(), forms().end(), [&](const Form& one) { return one.path == path; });
  std::string why;
  const auto texts = readForm(call.body, *form, why);
  if (!texts) return refuse(400, why);
  store->change(user, [&](UserRecords& records) { records.addCall(*form, *texts); });
  return success();
}

Reply Service::userconf(const Call& call, const std::string& user) {
  if (queryValue(call, "uuid") != user) return refuse(400, "uuid is not the user that asks");
  return reply(canned.configuration());
}

Reply Service::predictions(const Call&, const std::string& user) { return reply(prediction(user)); }

Reply Service::pasttrips(const Call& call, const std::string& user) {
  const auto first = readNumber(queryValue(call, "first_pasttrip_id").value_or(""));
  const auto last = readNumber(queryValue(call, "last_pasttrip_id").value_or(""));
  if (!first || !last) return refuse(400, "no range of trips");
  return reply(pastTrips(user, *first, *last));
}

Reply Service::pois(const Call&, const std::string& user) { return reply(places(user)); }

Reply Service::resetbackend(const Call&, const std::string& user) {
  store->change(user, [&](UserRecords& records) {
    records.addReset("resetbackend");
    derive::forgetHistory(records);
    records.tell("trips", text({{"unit", user}}));
  });
  canned.forgetHistory(user);
  return success();
}

Reply Service::resetgeoprofile(const Call&, const std::string& user) {
  store->change(user, [&](UserRecords& records) {
    records.addReset("resetgeoprofile");
    derive::forgetGeoProfile(records);
    for (const char* kind : {"places", "prediction"}) records.tell(kind, text({{"unit", user}}));
  });
  canned.forgetGeoProfile(user);
  return success();
}

std::string Service::derivedText(const std::string& user, const std::function<std::string(derive::Records&)>& read) {
  std::string text;
  store->look(user, [&](derive::Records& records) { text = read(records); });
  return text;
}

std::string Service::pastTrips(const std::string& user, std::int64_t first, std::int64_t last) {
  if (canned.given()) return canned.pastTrips(user, first, last);
  return derivedText(user, [&](derive::Records& records) { return derive::pastTrips(records, first, last); });
}

std::string Service::places(const std::string& user) {
  return canned.given() ? canned.places(user) : derivedText(user, derive::places);
}

std::string Service::prediction(const std::string& user) {
  return canned.given() ? canned.prediction(user) : derivedText(user, derive::prediction);
}

}  // namespace tarvo::sandbox
