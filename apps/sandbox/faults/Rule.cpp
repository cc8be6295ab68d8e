#include "sandbox/faults/Rule.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "sandbox/Service.h"
#include "sandbox/wire/BoundedJson.h"

namespace tarvo::sandbox {
namespace {

using Json = nlohmann::ordered_json;

/// Some thirty years; clocks count it without an overflow.
constexpr double kLongest = 1e9;
constexpr std::int64_t kMost = 1'000'000'000;

/// In the order of FaultKind.
constexpr std::array<std::string_view, 11> kKinds = {
    "status", "hang", "drop-before", "redirect", "delay", "drop-after", "half", "garbage", "types", "drip", "skew"};
constexpr std::array kKeys = {"endpoint", "kind",  "times", "every",    "seconds",
                              "status",   "delay", "body",  "location", "retryAfter"};

[[noreturn]] void refuseKey(const std::string& key, const std::string& expected) {
  throw std::runtime_error("\"" + key + "\" is not " + expected);
}

template <class Number>
std::optional<Number> whole(const Json& json, const char* key, Number least, Number most) {
  const auto found = json.find(key);
  if (found == json.end()) return std::nullopt;
  if (found->is_number_unsigned() && found->get<std::uint64_t>() <= static_cast<std::uint64_t>(most) &&
      found->get<std::uint64_t>() >= static_cast<std::uint64_t>(least))
    return found->get<Number>();
  refuseKey(key, "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
}

std::optional<double> seconds(const Json& json, const char* key, double least) {
  const auto found = json.find(key);
  if (found == json.end()) return std::nullopt;
  if (found->is_number() && found->get<double>() >= least && found->get<double>() <= kLongest)
    return found->get<double>();
  refuseKey(key, least > 0 ? "a number of seconds above 0" : "a number of seconds");
}

std::optional<std::string> text(const Json& json, const char* key) {
  const auto found = json.find(key);
  if (found == json.end()) return std::nullopt;
  if (!found->is_string()) refuseKey(key, "a text");
  return found->get<std::string>();
}

}  // namespace

std::string_view nameOf(FaultKind kind) { return kKinds[static_cast<std::size_t>(kind)]; }

std::vector<std::string_view> faultKinds() { return {kKinds.begin(), kKinds.end()}; }

Rule readRule(const Json& json) {
  if (!json.is_object()) throw std::runtime_error("expected a JSON object");
  for (const auto& [key, value] : json.items())
    if (std::find(kKeys.begin(), kKeys.end(), key) == kKeys.end()) refuseKey(key, "known");
  const auto kind = std::find(kKinds.begin(), kKinds.end(), text(json, "kind").value_or(""));
  if (kind == kKinds.end()) refuseKey("kind", "one of the kinds of fault");
  Rule rule;
  rule.kind = static_cast<FaultKind>(kind - kKinds.begin());
  rule.endpoint = text(json, "endpoint").value_or(rule.endpoint);
  if (rule.endpoint != "*" && !Service::isEndpoint(rule.endpoint)) refuseKey("endpoint", "\"*\" or an endpoint");
  rule.times = whole<std::int64_t>(json, "times", 1, kMost);
  rule.every = whole<std::int64_t>(json, "every", 1, kMost);
  rule.seconds = seconds(json, "seconds", 1e-3);
  rule.status = whole<int>(json, "status", 200, 599);
  rule.delay = seconds(json, "delay", rule.kind == FaultKind::skew ? -kLongest : 0);
  rule.body = text(json, "body");
  rule.location = text(json, "location");
  if (rule.location && std::any_of(rule.location->begin(), rule.location->end(),
                                   [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; }))
    refuseKey("location", "a URL");
  rule.retryAfter = whole<std::int64_t>(json, "retryAfter", 0, kMost);
  return rule;
}

Json ruleJson(const Rule& rule) {
  Json json = {{"endpoint", rule.endpoint}, {"kind", nameOf(rule.kind)}};
  const auto add = [&](const char* key, const auto& value) {
    if (value) json[key] = *value;
  };
  add("times", rule.times);
  add("every", rule.every);
  add("seconds", rule.seconds);
  add("status", rule.status);
  add("delay", rule.delay);
  add("body", rule.body);
  add("location", rule.location);
  add("retryAfter", rule.retryAfter);
  return json;
}

std::vector<Rule> readRules(const std::filesystem::path& file) {
  const auto content = readRegularFile(file);
  if (!content) throw std::runtime_error(file.string() + ": cannot be read");
  std::vector<Rule> rules;
  try {
    const Json json = parseBoundedJson<Json>(*content);
    if (!json.is_array()) throw std::runtime_error("expected a JSON array of rules");
    for (const Json& one : json) try {
        rules.push_back(readRule(one));
      } catch (const std::runtime_error& error) {
        throw std::runtime_error("entry " + std::to_string(rules.size() + 1) + ": " + error.what());
      }
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(file.string() + ": " + error.what());
  }
  return rules;
}

}  // namespace tarvo::sandbox
