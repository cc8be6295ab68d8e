#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Descriptor.h"
#include "platform/foundation/Error.h"

namespace tarvo::platform {

/// Writes all of the bytes, whatever interrupts it; false, and errno, when that fails midway.
bool writeAll(const Descriptor& file, std::string_view bytes);

/// The file's bytes, or why they cannot be read.
Result<std::string> readFile(const std::filesystem::path& file);

/// Replaces the file as a whole: temporary file beside it (mode 0600, `.writing-` and six characters, locked while it
/// is written), flushed when `durable`, renamed. Absent on success. The first write of a process into a directory
/// clears it as `removeAbandonedWrites` does.
std::optional<Error> writeFileAtomically(const std::filesystem::path& file, std::string_view bytes, bool durable);

/// Adds the bytes to the end of the file, which is made (mode 0600) if there is none; neither a link nor a pipe is
/// taken for it. Gives the file's size, or why the bytes are not in it; then nothing of them is. They survive a kill of
/// the process, a power cut only after `flushFile`.
Result<std::uint64_t> appendToFile(const std::filesystem::path& file, std::string_view bytes);

/// Waits until what was written to the file, and its name, are on the disk. Absent on success.
std::optional<Error> flushFile(const std::filesystem::path& file);

/// The same for the names in a folder.
std::optional<Error> flushFolder(const std::filesystem::path& folder);

/// Whether `writeFileAtomically` could have made the name. The host's files lie in the same folders.
bool isTemporaryFileName(std::string_view name);

/// Removes the temporary files of writes that a kill has cut short; those of a write that goes on, in whatever process,
/// stay. Threads: any. Errors: none; what cannot be removed stays.
void removeAbandonedWrites(const std::filesystem::path& directory);

/// Makes the directory and those above it that are missing, for this user alone (mode 0700), and flushes where they
/// were made. Absent on success.
std::optional<Error> createPrivateDirectories(const std::filesystem::path& directory);

/// Whether `name` can stand for a file inside a directory: not empty, not "." or "..", no "/" and no NUL.
bool isPlainFileName(std::string_view name);

/// The error of a failed system call: domain NSPOSIXErrorDomain, code errno, its text.
Error posixError(int code, std::string_view what);

}  // namespace tarvo::platform
