#include "settings/Settings.h"

#include <gtest/gtest.h>

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

namespace tarvo {
namespace {

TEST(Settings, RefuseClientIdsThatWouldNotStandInAURL) {
  Settings& settings = Settings::shared();
  for (const char* usable : {"client-1_A.b", "my%20app", "%c3%A9", "..."}) EXPECT_TRUE(settings.setClientID(usable));
  for (const char* none : {"two words", "../users", ".", "..", ".%2e", "%2E%2e", "100%", "%2", "%g0", "a?b"})
    EXPECT_FALSE(settings.setClientID(none)) << none;
  EXPECT_EQ(settings.clientID(), "...");
}

TEST(HostOption, IsWhatTheHostSetsOrElseWhatItsPropertyListSays) {
  static int complaints = 0;
  platform::setSystemLogSink([](std::string_view) { ++complaints; });
  platform::setInfoDictionary({{"TarvoConfirmedDelivery", true},
                               {"TarvoLeastPassInterval", 1.5},
                               {"TarvoMeteredBytesPerDay", -1},
                               {"TarvoDropProtocolBreaks", 1},
                               {"TarvoPositionAge", "86400"},
                               {"TarvoStoreBytes", 7}});
  Settings& settings = Settings::shared();
  for (int time = 0; time < 2; ++time) {
    const DeliveryOptions described{.confirmed = true, .leastPassInterval = platform::Seconds(1.5)};
    EXPECT_EQ(settings.deliveryOptions.get(), described);
    EXPECT_EQ(settings.storageLimits.get(), StorageLimits{.storeBytes = 7});
  }
  EXPECT_EQ(complaints, 3) << "each fault once";
  settings.deliveryOptions.set({});
  EXPECT_EQ(settings.deliveryOptions.get(), DeliveryOptions());
}

}  // namespace
}  // namespace tarvo
