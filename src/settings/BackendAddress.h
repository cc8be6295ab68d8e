#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo {

/// Why the text cannot be the backend's base address, or absent when it can: an absolute http or https URL without
/// query, fragment, credentials or blanks; plain http only to loopback unless allowed.
std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp);

/// Whether the text can stand in the path of a URL as it is: its characters, or well-formed "%XX", and no segment that
/// leads elsewhere ("." and "..", however written). Empty is usable: nothing was configured yet.
bool isUsableClientID(std::string_view clientID);

/// Whether the text can stand in URLs and in the names of files as it is.
bool isUsableUserUUID(std::string_view uuid);

}  // namespace tarvo
