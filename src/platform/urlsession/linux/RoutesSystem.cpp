#include "platform/urlsession/RoutesSystem.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "platform/foundation/Descriptor.h"
#include "platform/urlsession/Reachability.h"

namespace tarvo::platform {
namespace {

Descriptor openSocket(int family, int type, int protocol) {
  return Descriptor(::socket(family, type | SOCK_CLOEXEC, protocol));
}

/// An IPv4 or IPv6 address in the form that the system's calls take.
class Address {
 public:
  Address() = default;
  explicit Address(const sockaddr& address) {
    std::memcpy(&bytes_, &address, address.sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
  }

  sockaddr* get() { return static_cast<sockaddr*>(static_cast<void*>(&bytes_)); }
  const sockaddr* get() const { return static_cast<const sockaddr*>(static_cast<const void*>(&bytes_)); }
  bool isV6() const { return bytes_.ss_family == AF_INET6; }
  socklen_t length() const { return isV6() ? sizeof(sockaddr_in6) : sizeof(sockaddr_in); }
  void setPort(std::uint16_t port) {
    const auto inNetworkOrder = htons(port);
    static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
    std::memcpy(static_cast<char*>(static_cast<void*>(&bytes_)) + offsetof(sockaddr_in, sin_port), &inNetworkOrder,
                sizeof inNetworkOrder);
  }
  /// The address alone, without family and port: 4 or 16 bytes.
  std::string_view number() const {
    const auto* const bytes = static_cast<const char*>(static_cast<const void*>(&bytes_));
    return isV6() ? std::string_view(bytes + offsetof(sockaddr_in6, sin6_addr), sizeof(in6_addr))
                  : std::string_view(bytes + offsetof(sockaddr_in, sin_addr), sizeof(in_addr));
  }

 private:
  sockaddr_storage bytes_{};
};

struct Route {
  unsigned char type = RTN_UNREACHABLE;
  int interface = 0;  ///< 0: not known
};

/// The interface that has an IPv4 address; 0 when none is found. Without netlink nobody tells those of IPv6 ones.
int interfaceOf(int socket, const Address& local) {
  std::array<ifreq, 64> interfaces{};
  ifconf list{};
  list.ifc_len = static_cast<int>(sizeof interfaces);
  list.ifc_req = interfaces.data();
  if (local.isV6() || ::ioctl(socket, SIOCGIFCONF, &list) != 0) return 0;
  for (std::size_t i = 0; i < static_cast<std::size_t>(list.ifc_len) / sizeof(ifreq); ++i)
    if (interfaces[i].ifr_addr.sa_family == AF_INET && Address(interfaces[i].ifr_addr).number() == local.number())
      return static_cast<int>(if_nametoindex(interfaces[i].ifr_name));
  return 0;
}

/// The way as a datagram socket finds it, where a sandbox refuses to be asked about routes: connecting one looks for
/// the route, and sends nothing.
Route routeOfDatagramsTo(const Address& address) {
  const Descriptor datagrams = openSocket(address.get()->sa_family, SOCK_DGRAM, 0);
  Address local, peer = address;
  peer.setPort(9);
  if (::connect(datagrams.get(), peer.get(), peer.length()) != 0) return {};
  socklen_t localLength = sizeof(sockaddr_storage), peerLength = localLength;
  if (::getsockname(datagrams.get(), local.get(), &localLength) != 0 ||
      ::getpeername(datagrams.get(), peer.get(), &peerLength) != 0)
    return {};
  if (local.number() == peer.number()) return {RTN_LOCAL, 0};
  return {RTN_UNICAST, interfaceOf(datagrams.get(), local)};
}

/// Asks the kernel which way a packet to `address` would take; unreachable when there is none.
Route routeTo(const Address& address) {
  struct {
    nlmsghdr header;
    rtmsg message;
    rtattr attribute;
    std::array<unsigned char, sizeof(in6_addr)> destination;
  } request{};
  const std::size_t size = address.number().size();
  std::memcpy(request.destination.data(), address.number().data(), size);
  request.attribute.rta_type = RTA_DST;
  request.attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
  request.message.rtm_family = static_cast<unsigned char>(address.get()->sa_family);
  request.message.rtm_dst_len = static_cast<unsigned char>(size * 8);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(sizeof(rtmsg)) + RTA_LENGTH(size));

  const Descriptor netlink = openSocket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  alignas(nlmsghdr) std::array<char, 8192> buffer;
  if (::send(netlink.get(), &request, request.header.nlmsg_len, 0) < 0) return routeOfDatagramsTo(address);
  const ssize_t length = ::recv(netlink.get(), buffer.data(), buffer.size(), 0);
  if (length < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(rtmsg)))) return routeOfDatagramsTo(address);
  nlmsghdr header;
  std::memcpy(&header, buffer.data(), sizeof header);
  if (header.nlmsg_type != RTM_NEWROUTE) return {};
  rtmsg message;
  std::memcpy(&message, buffer.data() + NLMSG_HDRLEN, sizeof message);

  Route route{message.rtm_type, 0};
  const std::size_t end = std::min<std::size_t>(header.nlmsg_len, static_cast<std::size_t>(length));
  rtattr attribute;
  for (std::size_t at = NLMSG_LENGTH(NLMSG_ALIGN(sizeof(rtmsg))); at + sizeof attribute <= end;
       at += RTA_ALIGN(attribute.rta_len)) {
    std::memcpy(&attribute, buffer.data() + at, sizeof attribute);
    if (attribute.rta_len < sizeof attribute || at + attribute.rta_len > end) break;
    if (attribute.rta_type == RTA_OIF && attribute.rta_len >= RTA_LENGTH(sizeof(int)))
      std::memcpy(&route.interface, buffer.data() + at + RTA_LENGTH(0), sizeof route.interface);
  }
  return route;
}

bool isCellular(std::string_view interface) {
  return interface.starts_with("wwan") || interface.starts_with("ppp") || interface.starts_with("rmnet");
}

std::uint32_t flagsOf(const Route& route) {
  if (route.type == RTN_LOCAL) return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress;
  if (route.type != RTN_UNICAST) return 0;
  if (route.interface == 0) return kSCNetworkReachabilityFlagsReachable;
  ifreq query{};
  if (if_indextoname(static_cast<unsigned>(route.interface), query.ifr_name) == nullptr) return 0;
  const Descriptor any = openSocket(AF_INET, SOCK_DGRAM, 0);
  constexpr int up = IFF_UP | IFF_RUNNING;
  if (::ioctl(any.get(), SIOCGIFFLAGS, &query) != 0 || (query.ifr_flags & up) != up) return 0;
  return kSCNetworkReachabilityFlagsReachable | (isCellular(query.ifr_name) ? kSCNetworkReachabilityFlagsIsWWAN : 0);
}

}  // namespace

std::uint32_t flagsOfRouteTo(const sockaddr& address) {
  if (address.sa_family != AF_INET && address.sa_family != AF_INET6) return 0;
  return flagsOf(routeTo(Address(address)));
}

// Of a packet that must leave by one interface the kernel takes the peer to be there if it knows no route.
std::uint32_t flagsOfInterface(unsigned index) {
  return index == 0 ? 0 : flagsOf({RTN_UNICAST, static_cast<int>(index)});
}

}  // namespace tarvo::platform
