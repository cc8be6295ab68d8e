#include "platform/urlsession/URLRequest.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

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
  EXPECT_EQ(SCNetworkReachabilityGetFlags("https://192.0.2.1/", NameLookup::known), outside);
}

/// What a service manager does that allows a service the families of the Internet alone.
bool refuseNetlink() {
  sock_filter rules[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},      {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, SYS_socket},
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, args[0])}, {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, AF_NETLINK},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EAFNOSUPPORT},         {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
  const sock_fprog program{std::size(rules), rules};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(Reachability, NeedsNoNetlink) {
  const char* const names[] = {
      "0.0.0.0", "255.255.255.255", "https://192.0.2.1/", "[2001:db8::1]", "127.0.0.1", "localhost", "::1", "no..name"};
  std::vector<std::optional<std::uint32_t>> asked, found;
  for (const char* name : names) asked.push_back(SCNetworkReachabilityGetFlags(name));
  if (!refuseNetlink()) GTEST_SKIP() << "no filter of system calls here";
  ASSERT_EQ(::socket(AF_NETLINK, SOCK_RAW, 0), -1);
  for (const char* name : names) found.push_back(SCNetworkReachabilityGetFlags(name));
  EXPECT_EQ(found, asked);
}

}  // namespace
}  // namespace tarvo::platform
