/// @file
/// Where a process keeps its files, and what describes it.
#pragma once

#include <filesystem>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/Value.h>

/// The host's side of what the SDK stands on: its files, clock, device, log, queues and receiver.
namespace tarvo::platform {

// Where this process keeps its files, and what describes it. Set it before the first `Tarvo`. Where a call can be
// refused as too late, it answers true nevertheless when it sets what was set before. Threads: any.

/// Sets the home directory (a relative path counts from the present working directory): `Documents/` (store and logs),
/// `Library/` (defaults, transfers), `Info.plist`. False, and nothing changes, when another home has already been asked
/// for, by the library or by `homeDirectory`: its files would lie in two places.
TARVO_API bool setHomeDirectory(const std::filesystem::path& home);
/// The home that was set, else `$XDG_DATA_HOME/<program name>` (or `~/.local/share/<program name>`).
TARVO_API std::filesystem::path homeDirectory();

/// Sets the property list that describes the host (its keys: tarvo/HostKeys.h). Without one it is `Info.plist` in the
/// home that was set; without a home the one beside the program, else the one in the default home. False, and nothing
/// changes, when the description has already been read.
TARVO_API bool setInfoPropertyList(const std::filesystem::path& file);
/// Describes the host in code: the dictionary takes the place of the property list, of which nothing is read. False,
/// and nothing changes, when the description has already been read.
TARVO_API bool setInfoDictionary(Dictionary info);

/// The document directories of the user, created if they can be; the default list has one, `Documents` in the home.
/// The object store lies in the last, log files in the first.
TARVO_API std::vector<std::filesystem::path> documentDirectories();
/// Sets that list. What has been opened in the directories before stays there.
TARVO_API void setDocumentDirectories(std::vector<std::filesystem::path> directories);

}  // namespace tarvo::platform
