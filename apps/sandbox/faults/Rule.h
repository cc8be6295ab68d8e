#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::sandbox {

/// What goes wrong. Kinds up to `redirect` keep the backend from handling the request; the others let it, and spoil its
/// answer. What each does to a unit: docs/sandbox.md.
enum class FaultKind { status, hang, dropBefore, redirect, delay, dropAfter, half, garbage, types, drip, skew };

/// "status", "drop-before".
std::string_view nameOf(FaultKind kind);
/// Of all kinds.
std::vector<std::string_view> faultKinds();

/// Which requests meet a fault, and what it is; see docs/sandbox.md.
struct Rule {
  std::string endpoint = "*";  ///< behind the client id, "tags/set"; "*" is each
  FaultKind kind = FaultKind::status;
  std::optional<std::int64_t> times;  ///< absent: until it is removed
  std::optional<std::int64_t> every;
  std::optional<double> seconds;  ///< of life; absent: for ever
  std::optional<int> status;
  std::optional<double> delay;  ///< seconds: to wait, to take for the answer, or that the clock is ahead
  std::optional<std::string> body, location;
  std::optional<std::int64_t> retryAfter;  ///< seconds
};

/// Errors: std::runtime_error that names the key which is wrong.
Rule readRule(const nlohmann::ordered_json& json);
/// What `readRule` reads.
nlohmann::ordered_json ruleJson(const Rule& rule);

/// The rules of a file, a JSON array. Errors: std::runtime_error that names the file and the entry, counted from 1.
std::vector<Rule> readRules(const std::filesystem::path& file);

}  // namespace tarvo::sandbox
