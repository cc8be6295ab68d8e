#include "Display.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <utility>

#include "Arguments.h"

namespace tarvo::cli {
namespace {

constexpr std::chrono::milliseconds kPeriod{100};
constexpr std::size_t kFixesPerLine = 1000;

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

Progress::Progress(LocationManager& engine, std::size_t earlier, std::size_t total, bool inPlace)
    : engine_(engine), earlier_(earlier), total_(total), inPlace_(inPlace && ::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (inPlace_) std::fputs("\n", stderr);
}

void Progress::update(std::size_t fixes) {
  fixes_ = fixes;
  playSeconds_ = seconds();
  if (inPlace_ ? RealTime::now() - shown_ >= kPeriod : fixes % kFixesPerLine == 0) show();
}

void Progress::show() {
  const LocationManager::SyncStatus sync = engine_.syncStatus();
  const double rate = playSeconds_ > 0 ? static_cast<double>(fixes_ - earlier_) / playSeconds_ : 0;
  const std::string line = std::to_string(fixes_) + "/" + std::to_string(total_) + " fixes  " +
                           std::to_string(sync.stored) + " stored  " + std::to_string(sync.positionsPosted) +
                           " posted  " + std::to_string(sync.acknowledged) + " acknowledged  " +
                           std::to_string(static_cast<long long>(rate)) + " fixes/s";
  std::fputs((inPlace_ ? "\r" + line + "\x1b[K" : line + "\n").c_str(), stderr);
  shown_ = RealTime::now();
}

double Progress::seconds() const { return std::chrono::duration<double>(RealTime::now() - start_).count(); }

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
