#include <gtest/gtest.h>

#include <fstream>
#include <tuple>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>

#include "platform/device/linux/SystemFiles.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/NotificationCenter.h"
#include "platform/foundation/WorkInFlight.h"
#include "support/TempDir.h"

namespace tarvo::platform {
namespace {

namespace fs = std::filesystem;
using enum UIDeviceBatteryState;

using Supply = std::vector<std::pair<const char*, const char*>>;

void writeAttributes(const fs::path& supply, const Supply& attributes) {
  fs::create_directories(supply);
  for (const auto& [name, value] : attributes) std::ofstream(supply / name) << value << '\n';
}

Supply battery(const char* percent, const char* status) {
  return {{"type", "Battery"}, {"capacity", percent}, {"status", status}};
}

TEST(Device, ReadsTheBatteriesThatFeedTheMachine) {
  const Supply mains{{"type", "Mains"}, {"online", "1"}};
  const Supply uncounted{{"type", "Battery"}, {"energy_now", "10"}, {"energy_full", "40"}, {"status", "Unknown"}};
  const std::tuple<const char*, std::vector<Supply>, UIDeviceBatteryState, double> cases[] = {
      {"desktop", {mains}, unknown, -1},
      {"charging", {mains, battery("80", "Charging")}, charging, 0.8},
      {"held", {battery("60", "Not charging")}, charging, 0.6},
      {"full", {battery("101", "Full")}, full, 1},
      {"one of two full", {battery("100", "Full"), battery("50", "Discharging")}, unplugged, 0.75},
      {"no capacity", {uncounted, mains}, charging, 0.25},
      {"mouse", {{{"type", "Battery"}, {"scope", "Device"}, {"capacity", "9"}}}, unknown, -1},
  };
  UIDevice& device = UIDevice::current();
  for (const auto& [what, supplies, state, level] : cases) {
    SCOPED_TRACE(what);
    test::TempDir folder;
    for (std::size_t i = 0; i < supplies.size(); ++i) writeAttributes(folder.path() / std::to_string(i), supplies[i]);
    powerSupplyFolder() = folder.path();
    device.setBatteryMonitoringEnabled(true);
    EXPECT_EQ(device.batteryState(), state);
    EXPECT_DOUBLE_EQ(device.batteryLevel(), level);
    device.setBatteryMonitoringEnabled(false);
    EXPECT_EQ(device.batteryState(), unknown);
    EXPECT_EQ(device.batteryLevel(), -1);
  }
}

TEST(Device, TellsOfTheHostsBatteryOnlyWhenItsStateChangesWhileMonitored) {
  powerSupplyFolder() = "/nowhere";
  UIDevice& device = UIDevice::current();
  int told = 0;
  const auto count = [&](const std::string&) { ++told; };
  NotificationCenter::defaultCenter().addObserver(UIDeviceBatteryStateDidChangeNotification, count);

  device.setBattery(charging, 0.5);
  device.setBatteryMonitoringEnabled(true);
  device.setBattery(charging, 0.6);
  EXPECT_EQ(told, 0);
  device.setBattery(unplugged, 1.5);

  EXPECT_EQ(told, 1);
  EXPECT_EQ(device.batteryLevel(), -1);
}

TEST(Device, KeepsOneIdentifierInTheHome) {
  const test::TempDir home;
  setHomeDirectory(home.path());
  const std::string made = UIDevice::current().identifierForVendor().value();
  EXPECT_EQ(made[14], '4') << made;
  const fs::path file = home.path() / "Library" / "identifierForVendor";
  EXPECT_EQ(readFile(file).value(), made);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST(Device, TakesAnIdentifierOfTheHostsOwn) {
  UIDevice& device = UIDevice::current();
  EXPECT_TRUE(device.setIdentifierForVendor(""));
  EXPECT_EQ(device.identifierForVendor(), std::nullopt);
  EXPECT_TRUE(device.setIdentifierForVendor("3f2504e0-4F89-41d3-9a0c-0305e82c3301"));
  for (const char* none : {"HOST", "3F2504E04F8941D39A0C0305E82C3301", "3F2504E0-4F89-41D3-9A0C-0305E82C330g",
                           "3F2504E0-4F89-41D3-9A0C-0305E82C3301\n"})
    EXPECT_FALSE(device.setIdentifierForVendor(none)) << none;
  EXPECT_EQ(device.identifierForVendor(), "3F2504E0-4F89-41D3-9A0C-0305E82C3301") << "in upper case, and kept";
}

TEST(Device, ReadsTheDistributionsNameAsTheShellWould) {
  const std::string text = "# NAME=no\nVERSION_ID='12'\nPRETTY_NAME=\"A \\\"b\\\"\"\nNAME=Plain";
  EXPECT_EQ(releaseValue(text, "NAME"), "Plain");
  EXPECT_EQ(releaseValue(text, "PRETTY_NAME"), "A \"b\"");
  EXPECT_EQ(releaseValue(text, "VERSION"), std::nullopt);
}

TEST(Application, AsksTheHostOnTheMainQueueAndHasItsStateBeforeItTellsOfIt) {
  struct Host : HostApplication {
    bool presentAlert(const Alert& alert) override { return !(asked += alert.title).empty(); }
    void openURL(const std::string& url) override { asked += url; }
    std::string asked;
  };
  const auto host = std::make_shared<Host>();
  setHostApplication(host);
  UIApplication::shared().present({"title ", "text", {}});
  UIApplication::shared().openURL("url");
  EXPECT_EQ(host->asked, "");
  ASSERT_TRUE(WorkInFlight::waitUntilIdle(Seconds(10)));
  EXPECT_EQ(host->asked, "title url");
  NotificationCenter::defaultCenter().addObserver(UIApplicationDidEnterBackgroundNotification, [](const auto&) {
    EXPECT_EQ(UIApplication::shared().applicationState(), UIApplicationState::background);
  });
  UIApplication::shared().didEnterBackground();
}

}  // namespace
}  // namespace tarvo::platform
