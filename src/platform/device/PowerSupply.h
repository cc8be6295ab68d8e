#pragma once

#include <filesystem>

#include <tarvo/platform/Device.h>

namespace tarvo::platform {

struct BatteryReading {
  UIDeviceBatteryState state = UIDeviceBatteryState::unknown;
  double level = -1;  ///< 0 to 1; -1 when unknown
};

/// What the kernel tells in that folder (one sub-folder for each supply) of the batteries that feed the machine;
/// those of mice and the like do not count. Several batteries make one: the mean of their levels. Unknown without
/// any. Threads: any.
BatteryReading readPowerSupplies(const std::filesystem::path& folder);

/// The folder that UIDevice reads; /sys/class/power_supply until set.
std::filesystem::path powerSupplyFolder();
void setPowerSupplyFolder(std::filesystem::path folder);

}  // namespace tarvo::platform
