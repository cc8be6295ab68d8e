#pragma once

#include <filesystem>

namespace tarvo::platform {

/// The property list of the host: the one that was set, else `Info.plist` in the home that was set, else the one
/// beside the program if there is one, else the one in the default home. Threads: any.
std::filesystem::path infoPropertyListFile();

}  // namespace tarvo::platform
