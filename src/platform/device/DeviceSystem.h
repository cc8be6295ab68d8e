#pragma once

#include <optional>
#include <string>

#include <tarvo/platform/Device.h>

namespace tarvo::platform {

// What the operating system tells of the device: a port writes these functions (docs/porting.md). Threads: any.
// Errors: what cannot be read is absent, unknown or empty. Nothing stays open.

struct BatteryReading {
  UIDeviceBatteryState state = UIDeviceBatteryState::unknown;
  double level = -1;  ///< 0 to 1; -1 when unknown
};

/// The batteries that feed the machine, as one, read anew at each call: the mean of their levels; full when all are,
/// else charging or unplugged, unknown where the system does not say. Those of mice and the like do not count. Absent
/// without any: a port to a system without batteries answers that.
std::optional<BatteryReading> readBattery();

/// The system's own name, as its users know it: one line, never empty.
std::string systemReleaseName();
/// The version that goes with it: one line, empty where the system has none.
std::string systemReleaseVersion();

}  // namespace tarvo::platform
