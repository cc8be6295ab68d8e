#pragma once

#include <filesystem>

namespace tarvo::platform {

/// The file of the running program; empty when the system does not tell. Threads: any.
std::filesystem::path executableFile();

/// The user's home directory: `$HOME`, else the one of the user database. Threads: any.
std::filesystem::path userDirectory();

}  // namespace tarvo::platform
