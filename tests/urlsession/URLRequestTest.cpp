#include "platform/urlsession/URLRequest.h"

#include <gtest/gtest.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <tarvo/platform/TransferOptions.h>
#include <unistd.h>

#include "platform/urlsession/Reachability.h"

namespace tarvo::platform {
namespace {

TEST(URLRequest, ReadsHostsAsTheTransferWould) {
  const struct {
    const char *url, *host;
    bool valid, loopback;
  } cases[] = {{"http://localhost", "localhost", true, true},
               {"HTTPS://Api.LocalHost:8443/v1?x#y", "Api.LocalHost", true, true},
               {"http://127.1/", "127.0.0.1", true, true},
               {"http://[::1]:80/", "::1", true, true},
               {"https://user:pw@127.9.9.9/", "127.9.9.9", true, true},
               {"https://localhost@example.org/a/../b", "example.org", true, false},
               {"[::1]", "::1", false, true},
               {".localhost", ".localhost", false, false},
               {"ftp://example.org/", "example.org", false, false},
               {"http://example.org:99999/", "", false, false},
               {"http://example.org/a\nb", "", false, false},
               {"", "", false, false}};
  for (const auto& [url, host, valid, loopback] : cases) {
    EXPECT_EQ(isValidHttpUrl(url), valid) << url;
    EXPECT_EQ(hostOf(url), host) << url;
    EXPECT_EQ(isLoopbackHost(hostOf(url)), loopback) << url;
  }
}

TEST(HTTPURLResponse, SaysHowLongToWaitInSecondsOrByADateOfItsOwnClock) {
  const std::string date = "Sun, 06 Nov 1994 08:49:";
  const std::tuple<std::string, std::string, std::optional<Seconds>> cases[] = {
      {"120", "", Seconds(120)},
      {std::string(400, '9'), "", Seconds(1e300)},
      {date + "37 GMT", "", Seconds(37)},
      {"soon", "", {}},
      {date + "37 GMT", date + "30 GMT", Seconds(7)},
      {"-5", "", {}},
      {date + "37 GMT", date + "38 GMT", Seconds(0)},
      {"", "", {}}};
  for (const auto& [asked, own, wait] : cases)
    EXPECT_EQ(retryAfter({"", 503, {{"retry-after", asked}, {"date", own}}}, dateSince1970(784111740)), wait) << asked;
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

TEST(Reachability, FollowsTheKernelsRoutesTheProxyAndTheInterfaceWithAndWithoutNetlink) {
  constexpr auto here = kSCNetworkReachabilityFlagsReachable | kSCNetworkReachabilityFlagsIsLocalAddress,
                 reachable = kSCNetworkReachabilityFlagsReachable;
  const struct {
    const char* name;
    std::optional<std::uint32_t> flags;
    std::string proxy = "", interface = "";
  } cases[] = {{"", {}},
               {"localhost", here},
               {"::1", here},
               {"127.0.0.1", here},
               {"0.0.0.0", here},
               {"no..name", 0U},
               {"255.255.255.255", 0U},
               {"https://no..name/v1", here, "http://127.0.0.1:3128"},
               {"http://192.0.2.1/", 0, "socks5h://no..name:1080"},
               {"http://192.0.2.1/", reachable, "", "lo"},
               {"no..name", 0, "", "lo"},
               {"http://192.0.2.1/", 0, "", "nonsense0"}};
  const auto outside = SCNetworkReachabilityGetFlags("192.0.2.1"),
             farther = SCNetworkReachabilityGetFlags("2001:db8::1");
  for (const bool netlink : {true, false}) {
    if (!netlink && !refuseNetlink()) GTEST_SKIP() << "no filter of system calls here";
    EXPECT_TRUE(netlink || ::socket(AF_NETLINK, SOCK_RAW, 0) == -1);
    for (const auto& [name, flags, proxy, interface] : cases) {
      ASSERT_TRUE(setTransferOptions({proxy, "", "", "", "", interface}));
      EXPECT_EQ(SCNetworkReachabilityGetFlags(name), flags) << name << proxy << interface << netlink;
    }
    ASSERT_TRUE(setTransferOptions({}));
    for (const auto lookup : {NameLookup::ask, NameLookup::known})
      EXPECT_EQ(SCNetworkReachabilityGetFlags("https://192.0.2.1/", lookup), outside) << netlink;
    EXPECT_EQ(SCNetworkReachabilityGetFlags("[2001:db8::1]"), farther);
  }
}

}  // namespace
}  // namespace tarvo::platform
