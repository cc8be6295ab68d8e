#include "support/WholeSdk.h"

#include <set>

namespace tarvo {
namespace {

using platform::LocationService;
using platform::Seconds;
using platform::UIApplication;
using platform::UIDevice;
using platform::UIDeviceBatteryState;

/// A started engine with one stored position, in a device on its battery.
class Modes : public test::WholeSdk {
 protected:
  void SetUp() override {
    WholeSdk::SetUp();
    UIDevice::current().setBattery(UIDeviceBatteryState::unplugged, 0.5);
  }

  void begin(std::int64_t mode = Tarvo::LOCAL_BACKGROUND) {
    tarvo.emplace();
    tarvo->activate(mode);
    drive(1);
  }

  /// What an event of the device did to the engine: "method/action" of each record that it stored; the configuration of
  /// the location service: foreground, background or, at first, neither; the method stored with the next fix; how many
  /// regions are watched.
  std::string after(const std::string& event) {
    std::int64_t before = engine().syncStatus().stored;
    diary.clear();
    auto& application = UIApplication::shared();
    if (event == "launch") application.didFinishLaunching();
    if (event == "background") application.didEnterBackground();
    if (event == "foreground") application.didBecomeActive();
    if (event == "inactive") application.willResignActive();
    if (event == "plug") UIDevice::current().setBattery(UIDeviceBatteryState::charging, 0.5);
    if (event == "full") UIDevice::current().setBattery(UIDeviceBatteryState::full, 1);
    if (event == "unplug") UIDevice::current().setBattery(UIDeviceBatteryState::unplugged, 0.9);
    if (event == "unknown") UIDevice::current().setBattery(UIDeviceBatteryState::unknown, -1);
    waitUntilIdle();
    // A fix of the significant-change service may be stored before or after the event.
    std::set<std::string> stored;
    for (const auto& record : records())
      if (before-- <= 0) stored.insert(*record.localisationMethod + "/" + *record.serviceAction);
    auto& parts = EngineParts::of(engine());
    const auto background = parts.state.isBackgroundMode.get();
    std::string standing;
    for (const std::string& record : stored) standing += record + " ";
    return platform::concat(standing, background ? (*background ? "background " : "foreground ") : "neither ",
                            parts.state.currentLocalisationMethod.get(), " ",
                            parts.locationManager.monitoredRegions().size());
  }

  void expectServices(bool foreground) {
    auto& parts = EngineParts::of(engine());
    EXPECT_EQ(parts.locationManager.distanceFilter(), foreground ? 20.0 : 100.0);
    EXPECT_EQ(parts.state.currentBatteryState, UIDevice::current().batteryState());
    // A fix beyond the distance filter, but too near and too early for anything else.
    const auto stored = engine().syncStatus().stored;
    north_ += 0.0011;
    deliver(fixAt(48.001 + (north_ > 0.003 ? north_ = 0 : north_), kStart + 1));
    EXPECT_EQ(engine().syncStatus().stored > stored, foreground);
  }

  std::optional<Tarvo> tarvo;

 private:
  double north_ = 0;
};

TEST_F(Modes, FollowTheApplicationAndTheCharger) {
  tarvo.emplace();
  EXPECT_EQ(after("launch"), "neither unknown 0") << "nothing has an effect before the start";
  begin();
  const struct {
    const char* event;
    const char* standing;
    std::vector<const char*> told;  ///< in the log, once each
  } day[] = {
      {"launch",
       "event/app_started scls/loc_changed background scls 5",
       {":backgroundMode [loc] stop:standard-service start:significant-change mainThread:", "[event] STARTED main"}},
      {"background", "event/app_paused background scls 5", {"[event] BACKGROUND mainThread:true"}},
      // Charging in the background: the standard service runs beside the regions.
      {"plug",
       "event/power_plug foreground scls 5",
       {".foregroundMode [loc] start:standard-service main", "[battery] BATTERY-STATE-CHANGED:2 mainThread:true"}},
      {"background", "event/app_paused foreground scls 5", {}},
      {"unplug", "event/power_unplug background scls 5", {"BATTERY-STATE-CHANGED:1"}},
      {"unknown", "background scls 5", {}},
      {"foreground",
       "event/app_resumed foreground scls 0",
       {".foregroundMode [loc] stop:geofencing start:standard-service main", "[event] ACTIVE mainThread:true"}},
      {"unplug", "event/power_unplug foreground scls 0", {}},
      {"full", "event/power_plug foreground scls 0", {}},
      {"inactive", "foreground scls 0", {}},
      {"unplug", "event/power_unplug foreground scls 0", {}},
      // Armed once in this process, regions come back with the next fix only.
      {"background", "event/app_paused background scls 0", {"[event] BACKGROUND"}},
  };
  std::optional<bool> was;
  for (const auto& [event, standing, told] : day) {
    EXPECT_EQ(after(event), standing) << event;
    const bool is = std::string_view(standing).find("foreground") != std::string_view::npos;
    EXPECT_EQ(diary.count("Mode [loc]") > 0, is != was) << "a second switch does nothing";
    was = is;
    for (const char* text : told) EXPECT_EQ(diary.count(text), 1u) << text;
    expectServices(is);
  }
}

TEST_F(Modes, AFixInTheBackgroundTellsOfAChargerThatNobodyReported) {
  begin();
  after("background");
  auto& state = EngineParts::of(engine()).state;
  const std::pair<UIDeviceBatteryState, const char*> before[] = {{UIDeviceBatteryState::unplugged, ""},
                                                                 {UIDeviceBatteryState::unknown, "power_unplug "},
                                                                 {UIDeviceBatteryState::full, "power_unplug "}};
  for (const auto& [known, event] : before) {
    state.currentBatteryState = known;
    clock->advance(Seconds(300));
    drive(5);  // far enough for the significant-change service to tell
    EXPECT_EQ(recorded("event", clock->now() - Seconds(10)), event);
  }
}

TEST_F(Modes, AStandingDeviceGetsNineRegionsByItsAccuracy) {
  begin();
  platform::CLLocation fix = fixAt(48, kStart + 2);
  fix.speed = 0;
  fix.horizontalAccuracy = 20;
  clock->advance(Seconds(1));
  deliver(fix);
  EXPECT_TRUE(after("background").ends_with(" 9"));
  EXPECT_EQ(diary.count("radius:50.00m) lastSpeed:-1"), 1u);
}

TEST_F(Modes, FirstForegroundIsTheStandardServiceAndAnEmptyStoreArmsNothing) {
  tarvo.emplace();
  tarvo->activate(Tarvo::LOCAL_BACKGROUND);
  EXPECT_EQ(after("foreground"), "foreground sls 0");
  EXPECT_EQ(diary.count("recreateBackgroundSession"), 1u);
  EXPECT_EQ(after("background"), "background rms-scls 0") << "no position, no event";
  EXPECT_EQ(LocationManager::getAppState(), "app_paused");
  drive(1);
  EXPECT_EQ(after("foreground"), "event/app_resumed foreground sls 0");
  EXPECT_EQ(LocationManager::getAppState(), "app_resumed");
  after("inactive");
  EXPECT_EQ(LocationManager::getAppState(), "app_inactive");
}

TEST_F(Modes, TheForegroundModeStopsOffTheScreenAndStaysStopped) {
  begin(Tarvo::LOCAL_FOREGROUND);
  EXPECT_EQ(after("launch"), "event/app_started event/srv_starting scls/loc_changed background scls 5");
  EXPECT_EQ(after("background"), "event/app_paused background scls 5");
  EXPECT_FALSE(engine().tarvoStarted());
  EXPECT_EQ(after("foreground"), "background scls 5");
  activate(*tarvo, Tarvo::LOCAL_FOREGROUND);
  EXPECT_EQ(after("foreground"), "event/app_resumed foreground scls 0");
}

TEST_F(Modes, ALeftRegionArmsANewRingByTheMeasuredSpeed) {
  begin();
  UIApplication::shared().didEnterBackground();
  waitUntilIdle();
  auto& parts = EngineParts::of(engine());
  diary.clear();
  // Out of all regions, for longer than a crossing has to last; too early for a significant change.
  for (int i = 0; i < 2; ++i) {
    clock->advance(Seconds(25));
    deliver(fixAt(48.01, kStart + 26 + 25 * i));
  }
  EXPECT_EQ(diary.count("LocationManager:didExitRegion [loc] [geofence] CLCircularRegion"), 1u);
  EXPECT_EQ(parts.state.currentLocalisationMethod.get(), "rms");
  EXPECT_TRUE(parts.locationManager.monitoredRegions().empty());
  EXPECT_TRUE(parts.state.geofencingStarted);

  clock->advance(Seconds(5));
  deliver(fixAt(48.02, kStart + 56));  // the answer to the one request
  const platform::CLLocation center = fixAt(48.001, 0);
  const double speed = fixAt(48.02, 0).distanceFrom(center) / 55;  // since the ring was confirmed
  const auto ring = parts.locationManager.monitoredRegions();
  ASSERT_EQ(ring.size(), 5u);
  EXPECT_EQ(diary.count("LocationManager:startGeofencingWithSpeed [loc] [geofence] region:"), 5u);
  // Around the newest stored position: the fix that is being handled may or may not be stored by now.
  for (std::size_t i = 0; i < ring.size(); ++i)
    EXPECT_NEAR(ring[i].radius - ring[0].radius, kLookAheadSeconds[i] * speed, 1e-6);
}

}  // namespace
}  // namespace tarvo
