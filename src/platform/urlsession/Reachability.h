#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace tarvo::platform {

// Bits of the platform's reachability flags.

inline constexpr std::uint32_t kSCNetworkReachabilityFlagsReachable = 0x2;
/// A connection would have to be dialled first. Linux cannot tell that of a route and never gives this bit.
inline constexpr std::uint32_t kSCNetworkReachabilityFlagsConnectionRequired = 0x4;
inline constexpr std::uint32_t kSCNetworkReachabilityFlagsIsLocalAddress = 0x10000;
inline constexpr std::uint32_t kSCNetworkReachabilityFlagsIsWWAN = 0x40000;

/// Where the addresses of a host name come from.
enum class NameLookup {
  ask,   ///< the resolver, which can take its time
  known  ///< what the resolver said last in this process; never waits, and a name never asked for is not reachable
};

/// Whether a packet can leave this device towards a host: the kernel's routes (a route and an interface that is up)
/// and the resolver; not whether the peer answers. Loopback is always reachable. With a proxy that the host has set
/// (TransferOptions), the question is whether a packet can leave towards the proxy, whose business all else is; with a
/// network interface, whether that one is up.
/// `name` is a host name, an address, or a URL (its host is taken). Absent when the name is empty or unusable.
/// Threads: any.
std::optional<std::uint32_t> SCNetworkReachabilityGetFlags(std::string_view name, NameLookup lookup = NameLookup::ask);

}  // namespace tarvo::platform
