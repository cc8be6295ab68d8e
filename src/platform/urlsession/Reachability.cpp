#include "platform/urlsession/Reachability.h"

#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/urlsession/RoutesSystem.h"
#include "platform/urlsession/URLSession.h"

namespace tarvo::platform {
namespace {

using Addresses = std::vector<sockaddr_storage>;

/// A program asks for a few names at most.
constexpr std::size_t kMostNames = 64;

/// What the resolver has said of each name, the latest answer only.
struct Answers {
  Mutex mutex;
  std::map<std::string, Addresses, std::less<>> byName GUARDED_BY(mutex);
};

Answers& answers() {
  static auto* answers = new Answers;
  return *answers;
}

Addresses lookUp(const std::string& host, int flags) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) found = nullptr;
  Addresses addresses;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next)
    if (each->ai_family == AF_INET || each->ai_family == AF_INET6)
      std::memcpy(&addresses.emplace_back(), each->ai_addr, each->ai_addrlen);
  if (found != nullptr) ::freeaddrinfo(found);
  return addresses;
}

Addresses addressesOf(const std::string& host, NameLookup lookup) {
  if (auto written = lookUp(host, AI_NUMERICHOST); !written.empty()) return written;
  std::optional<Addresses> asked;
  if (lookup == NameLookup::ask) asked = lookUp(host, 0);
  MutexLock lock(answers().mutex);
  auto& byName = answers().byName;
  if (asked && byName.size() == kMostNames) byName.clear();
  if (asked) byName[host] = *asked;
  const auto found = byName.find(host);
  return found == byName.end() ? Addresses() : found->second;
}

}  // namespace

std::optional<std::uint32_t> SCNetworkReachabilityGetFlags(std::string_view name, NameLookup lookup) {
  const std::string host = hostToConnectTo(name);
  const auto isUnusable = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
  if (host.empty() || std::any_of(host.begin(), host.end(), isUnusable)) return std::nullopt;
  if (isLoopbackHost(host)) return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress;

  const std::string chosen = transferOptions().networkInterface;
  const unsigned interface = chosen.empty() ? 0 : if_nametoindex(chosen.c_str());
  if (!chosen.empty() && interface == 0) return 0;
  for (const sockaddr_storage& address : addressesOf(host, lookup)) {
    const auto& plain = *static_cast<const sockaddr*>(static_cast<const void*>(&address));
    const auto flags = chosen.empty() ? flagsOfRouteTo(plain) : flagsOfInterface(interface);
    if (flags != 0) return flags;
  }
  return 0;
}

}  // namespace tarvo::platform
