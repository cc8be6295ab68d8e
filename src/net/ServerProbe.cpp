#include "net/ServerProbe.h"

#include "log/Log.h"

namespace tarvo {

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
