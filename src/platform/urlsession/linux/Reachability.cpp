#include "platform/urlsession/Reachability.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "platform/urlsession/URLRequest.h"

namespace tarvo::platform {
namespace {

class Socket {
 public:
  Socket(int family, int type, int protocol) : fd_(::socket(family, type | SOCK_CLOEXEC, protocol)) {}
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

struct Route {
  unsigned char type = RTN_UNREACHABLE;
  int interface = 0;
};

/// Asks the kernel which way a packet to `address` would take; unreachable when there is none or no answer.
Route routeTo(const sockaddr& address) {
  struct {
    nlmsghdr header;
    rtmsg message;
    rtattr attribute;
    std::array<unsigned char, sizeof(in6_addr)> destination;
  } request{};
  const bool v6 = address.sa_family == AF_INET6;
  const std::size_t size = v6 ? sizeof(in6_addr) : sizeof(in_addr);
  std::array<unsigned char, sizeof(sockaddr_in6)> raw{};
  std::memcpy(raw.data(), &address, v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in));
  std::memcpy(request.destination.data(),
              raw.data() + (v6 ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr)), size);
  request.attribute.rta_type = RTA_DST;
  request.attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
  request.message.rtm_family = static_cast<unsigned char>(address.sa_family);
  request.message.rtm_dst_len = static_cast<unsigned char>(size * 8);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(sizeof(rtmsg)) + RTA_LENGTH(size));

  const Socket netlink(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
  alignas(nlmsghdr) std::array<char, 8192> buffer;
  if (::send(netlink.fd(), &request, request.header.nlmsg_len, 0) < 0) return {};
  const ssize_t length = ::recv(netlink.fd(), buffer.data(), buffer.size(), 0);
  if (length < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(rtmsg)))) return {};
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
  ifreq query{};
  if (if_indextoname(static_cast<unsigned>(route.interface), query.ifr_name) == nullptr) return 0;
  const Socket any(AF_INET, SOCK_DGRAM, 0);
  constexpr int up = IFF_UP | IFF_RUNNING;
  if (::ioctl(any.fd(), SIOCGIFFLAGS, &query) != 0 || (query.ifr_flags & up) != up) return 0;
  return kSCNetworkReachabilityFlagsReachable | (isCellular(query.ifr_name) ? kSCNetworkReachabilityFlagsIsWWAN : 0);
}

}  // namespace

std::optional<std::uint32_t> SCNetworkReachabilityGetFlags(std::string_view name) {
  const std::string host = hostOf(name);
  const auto isUnusable = [](unsigned char c) { return c <= ' ' || c == 0x7f; };
  if (host.empty() || std::any_of(host.begin(), host.end(), isUnusable)) return std::nullopt;
  if (isLoopbackHost(host)) return kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress;

  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return 0;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, &::freeaddrinfo);
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    if (address->ai_family != AF_INET && address->ai_family != AF_INET6) continue;
    if (const auto flags = flagsOf(routeTo(*address->ai_addr)); flags != 0) return flags;
  }
  return 0;
}

}  // namespace tarvo::platform
