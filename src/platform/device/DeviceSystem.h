#pragma once

#include <optional>
#include <string>

#include <tarvo/platform/Device.h>

namespace tarvo::platform {

// What the operating system tells of the device: a port writes these functions (docs/porting.md). Threads: any.
// Errors: what cannot be read is absent, unknown or empty.

struct BatteryReading {
  UIDeviceBatteryState state = UIDeviceBatteryState::unknown;
  double level = -1;  ///< 0 to 1; -1 when unknown
};

/// The batteries that feed the machine, as one: the mean of their levels. Those of mice and the like do not count.
/// Absent without any.
std::optional<BatteryReading> readBattery();

/// The system's own name and version, as its users know them.
std::string systemReleaseName();
std::string systemReleaseVersion();

}  // namespace tarvo::platform
