#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "sandbox/Service.h"

/// What people see of the sandbox, as JSON: docs/sandbox.md.
namespace tarvo::sandbox::live {

using Json = nlohmann::ordered_json;

/// Milliseconds since 1970.
std::int64_t now();

/// One line, whatever the texts in it hold.
std::string dump(const Json& json);

/// A JSON object of at most 64 KiB that nests no deeper than what is read by hand; absent for anything else.
std::optional<Json> readObject(std::string_view text);

Json unitJson(Service& service, const Unit& unit);
Json requestJson(const RequestRow& request);
Json faultsJson(Faults& faults);

/// `limit` lines of a log file after the first `after`; see docs/sandbox.md.
Json logLines(std::string_view content, std::int64_t after, std::int64_t limit);

}  // namespace tarvo::sandbox::live
