#include "platform/device/DeviceSystem.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "platform/device/linux/SystemFiles.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;

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

/// What the machine's os-release file says; empty without.
std::string systemReleaseValue(std::string_view key) {
  for (const char* name : {"/etc/os-release", "/usr/lib/os-release"}) {
    std::ifstream file(name);
    std::ostringstream text;
    if (file && text << file.rdbuf()) return releaseValue(text.view(), key).value_or("");
  }
  return {};
}

}  // namespace

fs::path& powerSupplyFolder() {
  static auto* const folder = new fs::path("/sys/class/power_supply");
  return *folder;
}

std::optional<BatteryReading> readBattery() {
  bool mains = false, charging = false, discharging = false, held = false;
  std::size_t batteries = 0, full = 0, levels = 0;
  double levelSum = 0;

  std::error_code failed;
  for (fs::directory_iterator entry(powerSupplyFolder(), failed), end; !failed && entry != end;
       entry.increment(failed)) {
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

  if (batteries == 0) return std::nullopt;
  BatteryReading reading;
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

std::optional<std::string> releaseValue(std::string_view osRelease, std::string_view key) {
  while (!osRelease.empty()) {
    const std::size_t end = std::min(osRelease.find('\n'), osRelease.size());
    std::string_view line = osRelease.substr(0, end);
    osRelease.remove_prefix(std::min(end + 1, osRelease.size()));
    if (!line.starts_with(key) || line.substr(key.size(), 1) != "=") continue;
    line.remove_prefix(key.size() + 1);
    if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') && line.back() == line.front())
      line = line.substr(1, line.size() - 2);
    std::string value;
    for (std::size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\\' && i + 1 < line.size()) ++i;
      value += line[i];
    }
    return value;
  }
  return std::nullopt;
}

std::string systemReleaseName() {
  std::string name = systemReleaseValue("NAME");
  return name.empty() ? "Linux" : name;
}

std::string systemReleaseVersion() { return systemReleaseValue("VERSION_ID"); }

}  // namespace tarvo::platform
