#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "Kit.h"
#include "platform/device/DeviceSystem.h"
#include "platform/foundation/System.h"
#include "platform/persistence/StoreFiles.h"
#include "platform/urlsession/Reachability.h"
#include "platform/urlsession/RoutesSystem.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

constexpr std::uint32_t kReachable = kSCNetworkReachabilityFlagsReachable,
                        kHere = kReachable | kSCNetworkReachabilityFlagsIsLocalAddress;

TEST(Battery, IsAbsentOrKeepsWithinItsBounds) {
  const auto reading = readBattery();
  if (!reading) GTEST_SKIP() << "no battery";
  EXPECT_TRUE(reading->level == -1 || (reading->level >= 0 && reading->level <= 1)) << reading->level;
  EXPECT_LE(static_cast<std::uint64_t>(reading->state), 3U);
}

TEST(Release, IsOneLineWithAName) {
  const auto isOneLine = [](const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
  };
  EXPECT_FALSE(systemReleaseName().empty());
  EXPECT_TRUE(isOneLine(systemReleaseName())) << systemReleaseName();
  EXPECT_TRUE(isOneLine(systemReleaseVersion())) << systemReleaseVersion();
  const test::FewDescriptors none;
  EXPECT_FALSE(systemReleaseName().empty());
}

struct Address {
  explicit Address(const char* text) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_DGRAM;
    if (::getaddrinfo(text, "9", &hints, &found) != 0) return;
    std::memcpy(&bytes, found->ai_addr, found->ai_addrlen);
    length = found->ai_addrlen;
    ::freeaddrinfo(found);
  }
  sockaddr* get() { return static_cast<sockaddr*>(static_cast<void*>(&bytes)); }
  sockaddr_storage bytes{};
  socklen_t length = sizeof bytes;
};

TEST(Routes, LeadWhereDatagramsWouldGo) {
  const struct {
    const char* address;
    std::uint32_t routed;
  } cases[] = {{"127.0.0.1", kHere},
               {"::1", kHere},
               {"192.0.2.1", kReachable},
               {"2001:db8::1", kReachable},
               {"255.255.255.255", 0}};
  for (const auto& [text, routed] : cases) {
    Address address(text), own(text);
    const Descriptor socket(::socket(address.get()->sa_family, SOCK_DGRAM, 0));
    // Looks for a route, and sends nothing.
    const bool isRouted = ::connect(socket.get(), address.get(), address.length) == 0;
    EXPECT_EQ(flagsOfRouteTo(*address.get()) & ~kSCNetworkReachabilityFlagsIsWWAN, isRouted ? routed : 0) << text;
    if (!isRouted) continue;
    ASSERT_EQ(::getsockname(socket.get(), own.get(), &own.length), 0);
    EXPECT_EQ(flagsOfRouteTo(*own.get()), kHere) << "this device's own address";
  }
  Address other("127.0.0.1");
  other.get()->sa_family = AF_UNIX;
  EXPECT_EQ(flagsOfRouteTo(*other.get()), 0U);
}

TEST(Routes, AreLookedUpWithoutSending) {
  Address address("127.0.0.1");
  std::memset(address.get()->sa_data, 0, 2);  // any port
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM, 0));
  ASSERT_EQ(::bind(socket.get(), address.get(), address.length), 0);
  ASSERT_EQ(::getsockname(socket.get(), address.get(), &address.length), 0);
  flagsOfRouteTo(*address.get());
  EXPECT_FALSE(test::isReadable(socket.get()));
}

TEST(Routes, OfAnInterfaceAreThereWhileItIsUp) {
  struct if_nameindex* const interfaces = ::if_nameindex();
  ASSERT_NE(interfaces, nullptr);
  unsigned highest = 0, up = 0;
  for (const auto* each = interfaces; each->if_index != 0; ++each) {
    highest = std::max(highest, each->if_index);
    const auto flags = flagsOfInterface(each->if_index);
    EXPECT_EQ(flags & ~(kReachable | kSCNetworkReachabilityFlagsIsWWAN), 0U) << each->if_name;
    up += (flags & kReachable) != 0;
  }
  ::if_freenameindex(interfaces);
  EXPECT_EQ(flagsOfInterface(0), 0U);
  EXPECT_EQ(flagsOfInterface(highest + 1000), 0U);
  EXPECT_EQ(up > 0, (flagsOfRouteTo(*Address("127.0.0.1").get()) & kReachable) != 0) << "that of loopback at least";
}

void askAll() {
  std::uint8_t bytes[16];
  sinceBoot();
  executableFile();
  fillWithRandom(bytes);
  readBattery();
  systemReleaseName();
  systemReleaseVersion();
  for (const char* address : {"127.0.0.1", "::1", "192.0.2.1"}) flagsOfRouteTo(*Address(address).get());
  for (unsigned i = 0; i < 4; ++i) flagsOfInterface(i);
}

TEST(Descriptors, AreClosedAfterUseAndNotInherited) {
  const test::TempDir folder;
  std::string name = folder.path() / "sXXXXXX", inherited = test::toldByAnother("descriptors");
  const int before = test::lowestFreeDescriptor();
  askAll();
  {
    const test::FewDescriptors none;
    askAll();
  }
  EXPECT_EQ(test::lowestFreeDescriptor(), before);
  {
    const Descriptor file(makeTemporaryFile(name));
    StoreFiles files(name);
    files.watch();
    static WakeUp wakeUp;
    wakeUp.descriptor();
    EXPECT_EQ(test::toldByAnother("descriptors"), inherited);
  }
}

}  // namespace
}  // namespace tarvo::platform
