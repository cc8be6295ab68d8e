#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tarvo::unit {

/// The text in a file, without the end of its line. `warning` gets a line when everybody on the machine can read it.
/// Absent, with the reason in `error`, when it cannot be read, is empty or holds more than 4 KiB.
/// Threads: any.
std::optional<std::string> readSecret(const std::filesystem::path& file, std::string& warning, std::string& error);

}  // namespace tarvo::unit
