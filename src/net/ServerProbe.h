#pragma once

#include <string_view>

#include "platform/urlsession/Reachability.h"

namespace tarvo {

/// `NetworkManager::isWebServerReachable`, for callers who may not wait for a resolver: inside a block of the store
/// that would hold up everybody who reads it. Threads: any. Errors: none; the answer is in the log.
bool isServerReachable(bool viaWiFi, std::string_view url, platform::NameLookup lookup);

}  // namespace tarvo
