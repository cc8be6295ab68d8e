#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/urlsession/Reachability.h"

namespace tarvo {

/// Why the text cannot be the backend's base address, or absent when it can: an absolute http or https URL without
/// query, fragment, credentials or blanks; plain http only to loopback unless allowed. Threads: any.
std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp);

/// `NetworkManager::isWebServerReachable`, for callers who may not wait for a resolver: inside a block of the store
/// that would hold up everybody who reads it. Threads: any. Errors: none; the answer is in the log.
bool isServerReachable(bool viaWiFi, std::string_view url, platform::NameLookup lookup);

}  // namespace tarvo
