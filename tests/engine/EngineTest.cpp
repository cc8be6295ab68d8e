#include "support/WholeSdk.h"

#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

using platform::LocationService;
using platform::Seconds;

class Engine : public test::WholeSdk {};

TEST_F(Engine, ProbesWhatTheDeviceHas) {
  LocationService::Capabilities capabilities;
  capabilities.significantChange = false;
  capabilities.heading = true;
  LocationService::shared().setCapabilities(capabilities);
  platform::UIDevice::current().setPlatformLevel(8);
  auto& parts = EngineParts::of(engine());
  EXPECT_EQ(diary.count("LocationManager:init [loc] [init] mainThread:"), 1u);
  for (const auto& [service, times] : {std::pair("STANDARD-LOCATION-SERVICE", 1u),
                                       {"SIGNIFICANT-LOCATION-CHANGE-SERVICE", 0u},
                                       {"HEADING-INFORMATION-SERVICE", 1u},
                                       {"REGION-MONITORING-SERVICE", 1u}})
    EXPECT_EQ(diary.count(platform::concat(service, ":true")), times) << service;
  EXPECT_FALSE(parts.locationManager.allowsBackgroundLocationUpdates()) << "switched on from platform level 9 only";
  EXPECT_EQ(parts.locationManager.distanceFilter(), 20.0);
  EXPECT_LT(engine().randomID(), 1000000000u);
}

TEST_F(Engine, StoresEveryDeliveredFixAndMeasuresGeofencesOnlyASecondApart) {
  Tarvo tarvo;
  drive(1);
  EXPECT_EQ(engine().syncStatus().stored, 0) << "a fix before the start is lost";
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  auto& parts = EngineParts::of(engine());
  drive(1);
  parts.geofencing.startGeofencing();
  waitUntilIdle();
  EXPECT_EQ(parts.locationManager.monitoredRegions().size(), 5u);
  diary.clear();
  clock->advance(Seconds(0.999));
  deliver(fixAt(49, kStart + 10));
  EXPECT_EQ(diary.count("[geofence]"), 0u);
  clock->advance(Seconds(1.0));
  deliver(fixAt(50, kStart + 11));
  EXPECT_EQ(diary.count("[geofence] geofenceAge:"), 1u);
  EXPECT_EQ(diary.count("LocationManager.startGeofencing [loc] [geofence] region:"), 5u);
  EXPECT_EQ(engine().syncStatus().stored, 3);
  EXPECT_EQ(records().front().appName, "ios:org.example.host");
}

TEST_F(Engine, KeepsTheAddressThatItsClientHasCopied) {
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL("https://first.example/api"));
  ASSERT_TRUE(LocationManager::setRemoteWebServerURL("https://second.example/api")) << "nobody has copied the first";
  engine();
  EXPECT_FALSE(LocationManager::setRemoteWebServerURL("https://late.example/api"));
  EXPECT_EQ(diary.count("backend address refused: clients have copied another one already"), 1u);
  EXPECT_TRUE(LocationManager::setRemoteWebServerURL("https://second.example/api"));
  EXPECT_EQ(LocationManager::remoteWebServerURL(), "https://second.example/api");
}

TEST(GeofenceRadii, FollowSpeedBandsAgeAndAccuracy) {
  const std::pair<double, double> bands[] = {{0.5, 2},         {1.388, 2},  {1.389, 6},       {5.556, 6},
                                             {13.889, 13.889}, {13.89, 25}, {36.111, 36.111}, {83.333, 83.333},
                                             {83.334, 100},    {-0.5, 2}};
  for (const auto& [speed, assumed] : bands) EXPECT_EQ(assumedSpeed(speed), assumed) << speed;
  const double walking[] = {15, 45, 75, 135, 195};
  for (std::size_t i = 0; i < kLookAheadSeconds.size(); ++i)
    EXPECT_EQ(ringRadius(10, kLookAheadSeconds[i], 0, assumedSpeed(3)), walking[i]);
  EXPECT_FALSE(isUsableSpeed(-1) || isUsableSpeed(0));
  EXPECT_TRUE(isUsableSpeed(-0.5));
}

}  // namespace
}  // namespace tarvo
