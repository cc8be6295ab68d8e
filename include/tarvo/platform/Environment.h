#pragma once

#include <filesystem>
#include <vector>

#include <tarvo/Export.h>

namespace tarvo::platform {

/// Where this process keeps its files. Set before the first touch of the library; what was derived stays.
///
/// Home directory: `Documents/` (store and logs), `Library/` (defaults, transfers), `Info.plist`.
/// Without one, `$XDG_DATA_HOME/<program name>` (or `~/.local/share/<program name>`) is the home, and the
/// property list is looked for beside the program first.
/// Threads: any.
TARVO_API void setHomeDirectory(const std::filesystem::path& home);
TARVO_API std::filesystem::path homeDirectory();

/// The property list that describes the host ("CFBundleIdentifier", "TarvoApiKey", "TarvoClientID").
TARVO_API void setInfoPropertyList(const std::filesystem::path& file);

/// The document directories of the user, created if they can be; the default list has one.
/// The object store lies in the last, log files in the first.
TARVO_API std::vector<std::filesystem::path> documentDirectories();
TARVO_API void setDocumentDirectories(std::vector<std::filesystem::path> directories);

}  // namespace tarvo::platform
