#pragma once

#include <filesystem>
#include <vector>

#include "works/Works.h"

namespace tarvo::bench {

/// The SDK with a home, activated so that positions are stored and stay on the device; made on first use, never
/// destroyed.
void activateSdk();
/// The copy of the store for the limits.
const std::filesystem::path& limitStore();

void addIntakeWorks(std::vector<Work>& works);
void checkIntakeWorks();
void addUploadWorks(std::vector<Work>& works);
void addLogWorks(std::vector<Work>& works);

}  // namespace tarvo::bench
