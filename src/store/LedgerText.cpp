#include "store/LedgerText.h"

#include <algorithm>
#include <array>
#include <utility>

#include <tarvo/platform/Value.h>

namespace tarvo {

using platform::Array;
using platform::Date;
using platform::Dictionary;
using platform::Value;

namespace {

constexpr std::array kErrors{"none",       "offline",      "unreachable", "timed_out", "untrusted", "broken",
                             "redirected", "unauthorized", "throttled",   "refused",   "rejected"};
constexpr std::array kCauses{"not_running",    "stopped",       "not_permitted",  "background",
                             "standing_still", "refused_fixes", "receiver_silent"};

/// The enumerator that a list of names calls so.
template <class Enumeration, std::size_t count>
std::optional<Enumeration> named(const std::array<const char*, count>& names, const std::string* name) {
  const auto found = name ? std::find(names.begin(), names.end(), *name) : names.end();
  if (found == names.end()) return std::nullopt;
  return static_cast<Enumeration>(found - names.begin());
}

Value valueOf(Date date) { return platform::secondsSince1970(date); }

std::optional<Date> dateOf(const Value* value) {
  const auto seconds = value ? value->asDouble() : std::nullopt;
  return seconds ? std::optional(platform::dateSince1970(*seconds)) : std::nullopt;
}

std::optional<Health::Range> rangeOf(const Array& ends) {
  const auto first = ends.size() == 2 ? ends[0].asInteger() : std::nullopt;
  const auto last = ends.size() == 2 ? ends[1].asInteger() : std::nullopt;
  if (!first || !last || *first < 0 || *first > *last) return std::nullopt;
  return Health::Range{*first, *last};
}

std::optional<Health::Gap> gapOf(const Array& parts) {
  if (parts.size() != 3) return std::nullopt;
  const auto since = dateOf(&parts[0]);
  const auto until = dateOf(&parts[1]);
  const auto cause = named<GapCause>(kCauses, parts[2].asString());
  if (!since || !cause || (!until && !parts[1].isNull())) return std::nullopt;
  return Health::Gap{*since, until, *cause};
}

/// Calls `take` with each array in the array under `key`; false when there is something else, or `take` says so.
template <class Take>
bool eachArray(const Dictionary& dictionary, std::string_view key, const Take& take) {
  const Value* value = find(dictionary, key);
  const Array* all = value ? value->asArray() : nullptr;
  return all &&
         std::all_of(all->begin(), all->end(), [&](const Value& one) { return one.asArray() && take(*one.asArray()); });
}

}  // namespace

const char* nameOf(DeliveryError error) { return kErrors.at(static_cast<std::size_t>(error)); }
const char* nameOf(GapCause cause) { return kCauses.at(static_cast<std::size_t>(cause)); }

void add(std::vector<Health::Range>& ranges, Health::Range range) {
  const auto touches = [&](const Health::Range& other) {
    return other.last >= range.first - 1 && other.first - 1 <= range.last;
  };
  for (const Health::Range& other : ranges)
    if (touches(other)) range = {std::min(range.first, other.first), std::max(range.last, other.last)};
  std::erase_if(ranges, touches);
  const auto place = std::find_if(ranges.begin(), ranges.end(), [&](auto& other) { return other.first > range.last; });
  ranges.insert(place, range);
  if (ranges.size() <= LedgerText::kMostRanges) return;
  ranges[1].first = ranges[0].first;
  ranges.erase(ranges.begin());
}

std::string LedgerText::text() const {
  Dictionary values{{"written", valueOf(written)}, {"tries_since", triesSince}, {"removed", removed}};
  Array ranges, spans;
  for (const auto& [first, last] : acknowledgedWithoutAnswer) ranges.push_back(Array{first, last});
  for (const auto& [since, until, cause] : gaps)
    spans.push_back(Array{valueOf(since), until ? valueOf(*until) : Value(), nameOf(cause)});
  values["acknowledged_without_answer"] = std::move(ranges);
  values["gaps"] = std::move(spans);
  values["last_error"] = nameOf(lastError);
  if (removedUpTo) values["removed_up_to"] = *removedUpTo;
  if (lastTry) values["last_try"] = valueOf(*lastTry);
  if (lastAcknowledgement) values["last_acknowledgement"] = valueOf(*lastAcknowledgement);
  return Value(std::move(values)).toJson().value_or("");
}

std::optional<LedgerText> LedgerText::read(std::string_view text) {
  const auto json = Value::fromJson(text);
  const Dictionary* values = json ? json->asDictionary() : nullptr;
  if (!values) return std::nullopt;
  LedgerText ledger;
  const auto written = dateOf(find(*values, "written"));
  const Value* error = find(*values, "last_error");
  const auto lastError = named<DeliveryError>(kErrors, error ? error->asString() : nullptr);
  const bool areRanges = eachArray(*values, "acknowledged_without_answer", [&](const Array& ends) {
    const auto range = rangeOf(ends);
    if (range) add(ledger.acknowledgedWithoutAnswer, *range);
    return range.has_value();
  });
  const bool areGaps = eachArray(*values, "gaps", [&](const Array& parts) {
    const auto gap = gapOf(parts);
    if (gap) append(ledger.gaps, *gap);
    return gap.has_value();
  });
  if (!written || !lastError || !areRanges || !areGaps) return std::nullopt;
  ledger.written = *written;
  ledger.lastError = *lastError;
  ledger.removed = findInteger(*values, "removed").value_or(0);
  ledger.removedUpTo = findInteger(*values, "removed_up_to");
  ledger.lastTry = dateOf(find(*values, "last_try"));
  ledger.lastAcknowledgement = dateOf(find(*values, "last_acknowledgement"));
  ledger.triesSince = findInteger(*values, "tries_since").value_or(0);
  return ledger;
}

}  // namespace tarvo
