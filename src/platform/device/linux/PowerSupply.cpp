#include "platform/device/PowerSupply.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>
#include <string>

#include "platform/foundation/Mutex.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

struct Folder {
  Mutex mutex;
  fs::path path GUARDED_BY(mutex) = "/sys/class/power_supply";
};

Folder& folderSetting() {
  static Folder* const folder = new Folder;
  return *folder;
}

/// The first line of an attribute; empty when there is none.
std::string attribute(const fs::path& supply, const char* name) {
  std::ifstream file(supply / name);
  std::string line;
  std::getline(file, line);
  return line;
}

std::optional<double> numberAttribute(const fs::path& supply, const char* name) {
  const std::string text = attribute(supply, name);
  double value = 0;
  const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
  if (read.ec != std::errc()) return std::nullopt;
  return value;
}

std::optional<double> levelOf(const fs::path& supply) {
  std::optional<double> level;
  if (const auto percent = numberAttribute(supply, "capacity")) level = *percent / 100;
  for (const auto& [now, full] : {std::pair{"energy_now", "energy_full"}, std::pair{"charge_now", "charge_full"}}) {
    if (level) break;
    const auto left = numberAttribute(supply, now);
    const auto most = numberAttribute(supply, full);
    if (left && most && *most > 0) level = *left / *most;
  }
  if (level) level = std::clamp(*level, 0.0, 1.0);
  return level;
}

}  // namespace

BatteryReading readPowerSupplies(const fs::path& folder) {
  bool mains = false, charging = false, discharging = false, held = false;
  std::size_t batteries = 0, full = 0, levels = 0;
  double levelSum = 0;

  std::error_code failed;
  for (fs::directory_iterator entry(folder, failed), end; !failed && entry != end; entry.increment(failed)) {
    const fs::path& supply = entry->path();
    if (attribute(supply, "type") != "Battery") {
      mains = mains || attribute(supply, "online") == "1";
      continue;
    }
    if (attribute(supply, "scope") == "Device" || attribute(supply, "present") == "0") continue;
    ++batteries;
    if (const auto level = levelOf(supply)) {
      ++levels;
      levelSum += *level;
    }
    const std::string status = attribute(supply, "status");
    charging = charging || status == "Charging";
    discharging = discharging || status == "Discharging";
    held = held || status == "Not charging";  // plugged in, kept below full
    if (status == "Full") ++full;
  }

  BatteryReading reading;
  if (batteries == 0) return reading;
  if (levels > 0) reading.level = levelSum / static_cast<double>(levels);
  if (full == batteries)
    reading.state = UIDeviceBatteryState::full;
  else if (charging)
    reading.state = UIDeviceBatteryState::charging;
  else if (discharging)
    reading.state = UIDeviceBatteryState::unplugged;
  else if (held || mains)
    reading.state = UIDeviceBatteryState::charging;
  return reading;
}

fs::path powerSupplyFolder() {
  Folder& folder = folderSetting();
  MutexLock lock(folder.mutex);
  return folder.path;
}

void setPowerSupplyFolder(fs::path path) {
  Folder& folder = folderSetting();
  MutexLock lock(folder.mutex);
  folder.path = std::move(path);
}

}  // namespace tarvo::platform
