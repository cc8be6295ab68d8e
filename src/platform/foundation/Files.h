#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// The file's bytes, or why they cannot be read.
Result<std::string> readFile(const std::filesystem::path& file);

/// Replaces the file as a whole: temporary file beside it (mode 0600, a name that begins with a dot), flushed when
/// `durable`, renamed. Absent on success.
std::optional<Error> writeFileAtomically(const std::filesystem::path& file, std::string_view bytes, bool durable);

/// Makes the directory and those above it that are missing, for this user alone (mode 0700). Absent on success.
std::optional<Error> createPrivateDirectories(const std::filesystem::path& directory);

/// Whether `name` can stand for a file inside a directory: not empty, not "." or "..", no "/" and no NUL.
bool isPlainFileName(std::string_view name);

/// The error of a failed system call: domain NSPOSIXErrorDomain, code errno, its text.
Error posixError(int code, std::string_view what);

}  // namespace tarvo::platform
