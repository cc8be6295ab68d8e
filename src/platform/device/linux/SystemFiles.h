#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::platform {

// The files in which Linux tells of the device; for DeviceSystem.cpp and its tests.

/// The folder with a sub-folder for each power supply: /sys/class/power_supply. Change it before it is first read.
std::filesystem::path& powerSupplyFolder();

/// The value of `key` in the text of an os-release file, quotes and escapes removed; absent without.
std::optional<std::string> releaseValue(std::string_view osRelease, std::string_view key);

}  // namespace tarvo::platform
