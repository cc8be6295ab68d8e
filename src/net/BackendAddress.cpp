#include "net/BackendAddress.h"

#include "log/Log.h"
#include "platform/urlsession/URLRequest.h"

namespace tarvo {

std::optional<std::string> refusalOfBackendAddress(std::string_view url, bool allowPlainHttp) {
  if (!platform::isValidHttpUrl(url)) return "not an absolute http or https URL";
  if (url.find_first_of("?#@") != std::string_view::npos) return "it has a query, a fragment or credentials";
  const bool secure = url.size() >= 8 && (url[4] == 's' || url[4] == 'S');
  if (!secure && !allowPlainHttp && !platform::isLoopbackHost(platform::hostOf(url)))
    return "plain http is only for loopback: positions and credentials would travel readable";
  return std::nullopt;
}

bool isServerReachable(bool viaWiFi, std::string_view url, platform::NameLookup lookup) {
  using namespace platform;
  const auto flags = SCNetworkReachabilityGetFlags(url, lookup);
  const bool connected = flags && (*flags & kSCNetworkReachabilityFlagsReachable) != 0 &&
                         (*flags & kSCNetworkReachabilityFlagsConnectionRequired) == 0;
  if (connected && !viaWiFi) {
    Log::debug("NetworkManager:isWebServerReachable [net] true mainThread:", mainThread());
    return true;
  }
  if (connected && (*flags & kSCNetworkReachabilityFlagsIsWWAN) == 0) {
    // Says cellular although the way is not; readers of the log know it so.
    Log::debug("NetworkManager:isWebServerReachable [net] viaCellular:true mainThread:", mainThread());
    return true;
  }
  Log::debug("NetworkManager:isWebServerReachable [net] false mainThread:", mainThread());
  return false;
}

}  // namespace tarvo
