#include "Objects.h"

#include <utility>

namespace tarvo::c {

Handles& Handles::shared() {
  static auto* const handles = new Handles;
  return *handles;
}

std::uintptr_t Handles::add(std::shared_ptr<void> object, std::uintptr_t kind) {
  // Odd, and small as long as few were given out: no address that anything has.
  constexpr std::uintptr_t kStep = 16;
  const std::lock_guard lock(mutex_);
  do last_ += kStep;
  while (entries_.contains(last_ | kind << 1 | 1));
  const std::uintptr_t handle = last_ | kind << 1 | 1;
  entries_.emplace(handle, Entry{std::move(object)});
  return handle;
}

std::shared_ptr<void> Handles::find(std::uintptr_t handle, std::uintptr_t kind) {
  const std::lock_guard lock(mutex_);
  const auto entry = entries_.find(handle);
  return entry != entries_.end() && (handle >> 1 & 7) == kind ? entry->second.object : nullptr;
}

bool Handles::ref(std::uintptr_t handle, std::uintptr_t kind) {
  const std::lock_guard lock(mutex_);
  const auto entry = entries_.find(handle);
  if (entry == entries_.end() || (handle >> 1 & 7) != kind) return false;
  ++entry->second.shares;
  return true;
}

void Handles::unref(std::uintptr_t handle, std::uintptr_t kind) {
  std::shared_ptr<void> last;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto entry = entries_.find(handle);
  if (entry == entries_.end() || (handle >> 1 & 7) != kind || --entry->second.shares > 0) return;
  last = std::move(entry->second.object);
  entries_.erase(entry);
}

bool Handles::remove(std::uintptr_t handle) {
  const std::lock_guard lock(mutex_);
  return entries_.extract(handle).operator bool();
}

std::size_t Handles::count() {
  const std::lock_guard lock(mutex_);
  return entries_.size();
}

tarvo_fix fixOf(const platform::CLLocation& fix) {
  return {.latitude = fix.coordinate.latitude,
          .longitude = fix.coordinate.longitude,
          .altitude = fix.altitude,
          .horizontal_accuracy = fix.horizontalAccuracy,
          .vertical_accuracy = fix.verticalAccuracy,
          .course = fix.course,
          .speed = fix.speed,
          .time = platform::secondsSince1970(fix.timestamp),
          .floor = fix.floor.value_or(0),
          .has_floor = fix.floor ? 1 : 0};
}

platform::CLLocation locationOf(const tarvo_fix& fix) {
  platform::CLLocation location;
  location.coordinate = {fix.latitude, fix.longitude};
  location.altitude = fix.altitude;
  location.horizontalAccuracy = fix.horizontal_accuracy;
  location.verticalAccuracy = fix.vertical_accuracy;
  location.course = fix.course;
  location.speed = fix.speed;
  location.timestamp = platform::dateSince1970(fix.time);
  if (fix.has_floor != 0) location.floor = fix.floor;
  return location;
}

}  // namespace tarvo::c
