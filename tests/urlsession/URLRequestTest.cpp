#include "platform/urlsession/URLRequest.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/urlsession/Reachability.h"

namespace tarvo::platform {
namespace {

TEST(URLRequest, ReadsHostsAsTheTransferWould) {
  struct Case {
    std::string url;
    bool valid;
    std::string host;
    bool loopback;
  };
  const Case cases[] = {
      {"http://localhost", true, "localhost", true},
      {"HTTPS://Api.LocalHost:8443/v1?x#y", true, "Api.LocalHost", true},
      {"http://127.9.9.9:1/", true, "127.9.9.9", true},
      {"http://127.1/", true, "127.0.0.1", true},
      {"http://[::1]:80/", true, "::1", true},
      {"https://example.org/a/../b", true, "example.org", false},
      {"https://localhost@example.org/", true, "example.org", false},
      {"https://user:pw@127.0.0.1/", true, "127.0.0.1", true},
      {"http://localhost.example.org", true, "localhost.example.org", false},
      {"http://127.0.0.1.example.org", true, "127.0.0.1.example.org", false},
      {"http://notlocalhost", true, "notlocalhost", false},
      {"http://[::2]/", true, "::2", false},
      {"ftp://example.org/", false, "example.org", false},
      {"localhost", false, "localhost", true},
      {"::1", false, "::1", true},
      {"[::1]", false, "::1", true},
      {".localhost", false, ".localhost", false},
      {"http:/example.org", false, "http:/example.org", false},
      {"http:///example.org", false, "example.org", false},
      {"http://example.org:99999/", false, "", false},
      {"http://example.org/a b", false, "", false},
      {"http://example.org/a\nb", false, "", false},
      {"http://:80/", false, "", false},
      {"http://", false, "", false},
      {"", false, "", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(isValidHttpUrl(c.url), c.valid) << c.url;
    EXPECT_EQ(hostOf(c.url), c.host) << c.url;
    EXPECT_EQ(isLoopbackHost(hostOf(c.url)), c.loopback) << c.url;
  }
}

/// What the kernel itself does when asked to connect without sending anything.
bool canConnectDatagrams(const char* address) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(9);
  inet_pton(AF_INET, address, &peer.sin_addr);
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  const bool connected = ::connect(fd, static_cast<sockaddr*>(static_cast<void*>(&peer)), sizeof peer) == 0;
  ::close(fd);
  return connected;
}

TEST(Reachability, FollowsTheKernelsRoutes) {
  constexpr auto here = kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress;
  using Flags = std::optional<std::uint32_t>;
  EXPECT_EQ(SCNetworkReachabilityGetFlags(""), Flags());
  EXPECT_EQ(SCNetworkReachabilityGetFlags("two words"), Flags());
  EXPECT_EQ(SCNetworkReachabilityGetFlags("http://example.org:99999"), Flags());
  EXPECT_EQ(SCNetworkReachabilityGetFlags("localhost"), here);
  EXPECT_EQ(SCNetworkReachabilityGetFlags("http://[::1]:8080/x"), here);
  EXPECT_EQ(SCNetworkReachabilityGetFlags("0.0.0.0"), here) << "asked of the kernel: its own address";
  EXPECT_EQ(SCNetworkReachabilityGetFlags("no..name"), 0U);
  EXPECT_EQ(SCNetworkReachabilityGetFlags("255.255.255.255"), 0U) << "no host";
  const Flags outside = SCNetworkReachabilityGetFlags("https://192.0.2.1/");
  EXPECT_EQ(outside.value() & kSCNetworkReachabilityFlagsReachable, canConnectDatagrams("192.0.2.1") ? 2U : 0U);
}

}  // namespace
}  // namespace tarvo::platform
