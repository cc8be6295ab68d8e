#include "settings/Settings.h"

#include <gtest/gtest.h>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/SystemLog.h>

namespace tarvo {
namespace {

using platform::dateSince1970;

TEST(UploadChannel, IsFreeWhenReleasedOrHeldForExactly180Seconds) {
  platform::Clock::install(std::make_shared<platform::ManualClock>(dateSince1970(1000)));
  UploadChannel channel;
  // A clock that was set back does not make it stale; a takeover starts the time anew.
  const std::pair<double, bool> tries[] = {
      {1000, true}, {1179.999, false}, {500, false}, {1180, true}, {1359.9, false}};
  for (const auto& [seconds, taken] : tries) {
    const auto outcome = channel.tryTake(dateSince1970(seconds));
    EXPECT_EQ(outcome.taken, taken) << seconds;
    EXPECT_EQ(outcome.wasLocked, seconds != 1000) << seconds;
  }
  channel.release();
  EXPECT_TRUE(channel.tryTake(dateSince1970(1181)).taken);
}

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
