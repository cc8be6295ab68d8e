#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <tarvo/Tarvo.h>
#include <tarvo/platform/SystemLog.h>

#include "engine/EngineParts.h"

namespace tarvo::bench {

/// Before the first touch of the SDK: its home, and a console that counts and drops.
void useHome(const std::filesystem::path& home);

/// The console that `useHome` installs.
platform::SystemLogSink consoleSink();
/// Lines that reached it.
std::uint64_t consoleLines();

inline EngineParts& parts() { return EngineParts::of(LocationManager::sharedInstance()); }

/// Waits for all queued work and all transfers.
void waitUntilIdle();

std::filesystem::path storeIn(const std::filesystem::path& home);

}  // namespace tarvo::bench
