// How things stand: counts as a record, everything as JSON.

#include <utility>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

using platform::Value;

template <class T>
Value orNull(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}
Value orNull(const std::optional<platform::Date>& date) {
  return date ? Value(platform::secondsSince1970(*date)) : Value();
}

platform::Array ranges(const std::vector<Health::Range>& all) {
  platform::Array list;
  for (const auto& [first, last] : all) list.emplace_back(platform::Dictionary{{"first", first}, {"last", last}});
  return list;
}

platform::Array spans(const std::vector<Health::Gap>& gaps) {
  platform::Array list;
  for (const auto& [since, until, cause] : gaps)
    list.emplace_back(platform::Dictionary{
        {"since", platform::secondsSince1970(since)}, {"until", orNull(until)}, {"cause", nameOf(cause)}});
  return list;
}

/// Under the names of `tarvo status --json`.
platform::Dictionary dictionaryOf(const Health& health) {
  const auto& [positions, delivery, fixes, store, log, gaps] = health;
  return {
      {"stored", positions.stored},
      {"unsent", positions.unsent},
      {"awaiting", positions.awaiting},
      {"acknowledged", positions.acknowledged},
      {"unsaved", positions.unsaved},
      {"oldest_unsent_seconds", positions.oldestUnsentAge ? Value(positions.oldestUnsentAge->count()) : Value()},
      {"acknowledged_without_answer", ranges(positions.acknowledgedWithoutAnswer)},
      {"removed", positions.removed},
      {"removed_up_to", orNull(positions.removedUpTo)},
      {"last_try", orNull(delivery.lastTry)},
      {"last_acknowledgement", orNull(delivery.lastAcknowledgement)},
      {"last_error", nameOf(delivery.lastError)},
      {"tries_since", delivery.triesSince},
      {"next_try", orNull(delivery.nextTry)},
      {"bytes_today", delivery.bytesToday},
      {"fixes_received", fixes.received},
      {"fixes_not_finite", fixes.notFinite},
      {"fixes_off_the_globe", fixes.offTheGlobe},
      {"fixes_impossible_time", fixes.impossibleTime},
      {"fixes_filtered_by_distance", fixes.filteredByDistance},
      {"silence_seconds", fixes.silence.count()},
      {"store_available", store.available},
      {"store_bytes", store.bytes},
      {"store_error", orNull(store.lastError)},
      {"log_bytes", log.bytes},
      {"log_lines_dropped", log.linesDropped},
      {"gaps", spans(gaps)},
  };
}

}  // namespace

extern "C" {

tarvo_result tarvo_get_sync_status(tarvo_sdk* sdk, tarvo_sync_status* out) {
  return bounded([&] {
    const auto object = at(sdk);
    sizeOf(out);
    const auto status = object->tarvo.syncStatus();
    write(out, {.size = 0,
                .stored = status.stored,
                .unsent = status.unsent,
                .awaiting = status.awaiting,
                .acknowledged = status.acknowledged,
                .unsaved = status.unsaved,
                .last_index = status.lastIndex.value_or(-1),
                .batches_posted = status.batchesPosted,
                .positions_posted = status.positionsPosted,
                .store_available = status.storeAvailable,
                .reserved = 0});
    return TARVO_OK;
  });
}

tarvo_result tarvo_health(tarvo_sdk* sdk, char** json) {
  return bounded([&] {
    const auto object = at(sdk);
    required(json);
    platform::Dictionary health = dictionaryOf(object->tarvo.health());
    auto text = Value(health).toJson();
    if (!text) {  // a path that is no UTF-8
      health["store_error"] = "an error whose text is no UTF-8";
      text = Value(std::move(health)).toJson();
    }
    if (!text) return TARVO_INTERNAL;
    *json = given(*text);
    return TARVO_OK;
  });
}

}  // extern "C"
