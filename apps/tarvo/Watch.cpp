#include "Watch.h"

#include <array>
#include <iostream>
#include <utility>

#include "Arguments.h"

namespace tarvo::cli {
namespace {

/// How the messages that are shown begin, and what they mean.
constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kShown = {{
    {"LocationManager.startGeofencing [loc] [geofence] region:", "armed "},
    {"LocationManager:startGeofencingWithSpeed [loc] [geofence] region:", "armed "},
    {"LocationManager:didExitRegion [loc] [geofence] ", "left "},
    {"LocationManager:didEnterRegion [loc] [geofence] ", "entered "},
    {"LocationManager:monitoringDidFailFor [loc] [geofence] ", "not armed: "},
    {"LocationManager.foregroundMode [loc] ", "foreground mode: "},
    {"LocationManager:backgroundMode [loc] ", "background mode: "},
}};

}  // namespace

void Watch::message(std::string_view text) {
  for (const auto& [beginning, meaning] : kShown) {
    if (!text.starts_with(beginning)) continue;
    text.remove_prefix(beginning.size());
    return show(std::string(meaning) + std::string(text.substr(0, text.find(" mainThread:"))));
  }
}

void Watch::stored(LocationManager& engine) {
  if (engine.syncStatus().lastIndex.value_or(-1) < nextIndex_) return;
  const platform::Date now = clock_->now();
  for (const LocationRecord& record : engine.getLocationhistory(now, now).locations.toVector()) {
    const std::int64_t index = record.index.value_or(-1);
    if (index < nextIndex_) continue;
    nextIndex_ = index + 1;
    const std::string method = record.localisationMethod.value_or("none");
    const std::string action = record.serviceAction.value_or("none");
    if (method != "event" && std::exchange(method_, method) == method) continue;
    show("stored " + std::to_string(index) + ": " + method + " " + action);
  }
}

void Watch::show(const std::string& text) {
  const std::string line = isoDate(clock_->now()) + "  " + text + "\n";
  const std::lock_guard lock(mutex_);
  std::cerr << line;
}

}  // namespace tarvo::cli
