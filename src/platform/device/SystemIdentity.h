#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tarvo::platform {

/// Who this machine and this installation are. Threads: any.

std::string hostName();

/// The value of `key` in the text of an os-release file, quotes and escapes removed; absent without.
std::optional<std::string> releaseValue(std::string_view osRelease, std::string_view key);
/// That value of this machine; empty without.
std::string systemReleaseValue(std::string_view key);

/// That UUID in upper case; absent when the text is none.
std::optional<std::string> upperCaseUuid(std::string_view text);

/// The upper-case UUID in that file; a new random one is put there when it holds none. Absent when that fails.
std::optional<std::string> keptUuid(const std::filesystem::path& file);

}  // namespace tarvo::platform
