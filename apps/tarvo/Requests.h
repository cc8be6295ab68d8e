#pragma once

#include <filesystem>
#include <optional>

namespace tarvo::cli {

/// Asks the unit on `home` how it is, each second while somebody looks, and prints a line of JSON or a block that is
/// rewritten on a terminal. Absent: no unit runs there. Ends with an interrupt, or when the unit ends.
/// Threads: main. Errors: Failure.
std::optional<int> watchUnit(const std::filesystem::path& home, bool json);

}  // namespace tarvo::cli
