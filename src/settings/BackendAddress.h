#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarvo {

/// Why the text cannot be the backend's base address, or absent when it can: an absolute http or https URL without
/// query, fragment, credentials or blanks; plain http only to loopback unless allowed.
std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp);

/// Whether the text can stand in the path of a URL as it is. Empty is usable: nothing was configured yet.
bool isUsableClientID(std::string_view clientID);

}  // namespace tarvo
