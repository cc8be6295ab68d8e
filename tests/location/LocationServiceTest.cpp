#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <tuple>

#include <tarvo/platform/MainQueue.h>

#include "location/Delivery.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

using enum CLAuthorizationStatus;
using LocationManager = LocationTest;
using LocationServiceOfAProcess = LocationTest;

TEST_F(LocationManager, HandsOverWhatPassesTheDistanceFilterOldestFirst) {
  // 20 m are 180 millionths of a degree.
  const std::tuple<std::string, std::vector<int>, Diary> steps[] = {
      {"", {0}, {}},
      {"start", {0, 100, 179}, {"fixes 0"}},
      {"start", {178}, {}},
      {"", {180, 200, 360, 540}, {"fixes 180 360 540"}},
      {"all", {541}, {"fixes 541"}},
      {"none", {5000}, {}},
      {"20", {560}, {}},
      {"20", {722}, {"fixes 722"}},
      {"stop", {9000}, {}},
      {"start", {723}, {"fixes 723"}},
  };
  manager.setDistanceFilter(20);
  for (const auto& [action, fixes, told] : steps) {
    SCOPED_TRACE(concat(action, " ", fixes.front()));
    if (action == "start") manager.startUpdatingLocation();
    if (action == "stop") manager.stopUpdatingLocation();
    if (action == "all") manager.setDistanceFilter(kCLDistanceFilterNone);
    if (action == "none") manager.setDistanceFilter(CLLocationDistanceMax);
    if (action == "20") manager.setDistanceFilter(20);
    std::vector<CLLocation> batch;
    for (const int place : fixes) batch.push_back(fixAt(place));
    service().deliver(batch);
    EXPECT_EQ(delegate.read(), told);
    EXPECT_EQ(manager.location(), batch.back());
  }
  EXPECT_EQ(service().statistics(), (LocationService::Statistics{.received = 15, .filteredByDistance = 6}));
}

TEST_F(LocationServiceOfAProcess, TellsEachChangeOfPermissionAndDeliversOnlyWhileItAllows) {
  manager.startUpdatingLocation();
  const std::pair<CLAuthorizationStatus, Diary> steps[] = {
      {authorizedAlways, {"fixes 1"}},
      {denied, {"status 2", "kCLErrorDomain 1"}},
      {denied, {}},
      {notDetermined, {"status 0"}},
      {authorizedWhenInUse, {"status 4", "fixes 1"}},
      {restricted, {"status 1", "kCLErrorDomain 1"}},
  };
  for (const auto& [status, told] : steps) {
    SCOPED_TRACE(static_cast<std::int64_t>(status));
    service().setAuthorizationStatus(status);
    EXPECT_EQ(CLLocationManager::authorizationStatus(), status);
    deliver(1);
    EXPECT_EQ(delegate.read(), told);
  }
  manager.startUpdatingLocation();  // runs already
  EXPECT_EQ(delegate.read(), Diary{});
  manager.stopUpdatingLocation();
  manager.startUpdatingLocation();
  EXPECT_EQ(delegate.read(), Diary{"kCLErrorDomain 1"});
  manager.requestLocation();
  clock->advance(Seconds(11));
  EXPECT_EQ(delegate.read(), Diary{"kCLErrorDomain 1"});
  service().setAuthorizationStatus(authorizedAlways);
  service().fail(clError::locationUnknown);
  EXPECT_EQ(delegate.read(), (Diary{"status 3", "kCLErrorDomain 0"}));
}

TEST_F(LocationServiceOfAProcess, AsksOneQuestionAtATimeOnTheMainQueueAndTheUpgradeAfterTheAnswer) {
  std::string asked;
  service().setPrompt([&](AuthorizationRequest request) {
    EXPECT_TRUE(isMainThread());
    asked += request == AuthorizationRequest::always ? 'A' : 'W';
  });
  const auto request = [&](const char* which) {
    asked.clear();
    for (; *which != '\0'; ++which)
      *which == 'A' ? manager.requestAlwaysAuthorization() : manager.requestWhenInUseAuthorization();
    EXPECT_EQ(asked, "") << "inside the call";
    EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(10)));
    return std::exchange(asked, {});
  };
  using Status = CLAuthorizationStatus;
  const std::tuple<Status, const char*, const char*, Status, const char*> cases[] = {
      {authorizedAlways, "WAA", "", authorizedAlways, ""},
      {denied, "WAA", "", denied, ""},
      {notDetermined, "WWA", "W", authorizedAlways, ""},
      {notDetermined, "WA", "W", notDetermined, ""},  // put off: the next request asks again
      {notDetermined, "WAW", "W", authorizedWhenInUse, ""},
      {notDetermined, "WAA", "W", authorizedWhenInUse, "A"},
      {authorizedWhenInUse, "AA", "", authorizedWhenInUse, ""}};  // the upgrade is asked for once
  for (const auto& [status, requests, expected, answer, then] : cases) {
    SCOPED_TRACE(concat(static_cast<std::int64_t>(status), requests));
    service().setAuthorizationStatus(status);
    EXPECT_EQ(request(requests), expected);
    service().setAuthorizationStatus(answer);
    EXPECT_EQ(request(""), then);
  }
}

TEST_F(LocationServiceOfAProcess, SwitchesItsSourceOnOnlyWhileSomebodyNeedsFixes) {
  struct DiarySource final : LocationSource {
    void start(double metres) override { lines += concat("start ", metres, "; "); }
    void stop() override { lines += "stop; "; }
    std::string lines;
  };
  const auto source = std::make_shared<DiarySource>();
  CLLocationManager precise, coarse;
  precise.setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
  coarse.setDesiredAccuracy(kCLLocationAccuracyHundredMeters);
  const std::pair<std::function<void()>, const char*> steps[] = {
      {[&] { service().setSource(source); }, ""},
      {[&] { coarse.startUpdatingLocation(); }, "start 100; "},
      {[&] { precise.requestLocation(); }, "start 10; "},
      {[] { deliver(0); }, "start 100; "},  // the request is answered
      {[] { service().setAuthorizationStatus(denied); }, "stop; "},
      {[] { service().setAuthorizationStatus(authorizedAlways); }, "start 100; "},
      {[&] { coarse.stopUpdatingLocation(); }, "stop; "}};
  for (const auto& [act, told] : steps) {
    act();
    EXPECT_TRUE(WorkInFlight::waitUntilIdle(Seconds(10)));
    EXPECT_EQ(std::exchange(source->lines, {}), told);
  }
}

TEST_F(LocationManager, AnswersARequestWithOneFixOrAnErrorAfterTenSeconds) {
  manager.setDesiredAccuracy(kCLLocationAccuracyNearestTenMeters);
  const std::tuple<const char*, std::vector<CLLocation>, std::string, Diary, Diary> cases[] = {
      {"good enough", {fixAt(1), fixAt(2), fixAt(3, 11)}, "", {"fixes 2"}, {}},
      {"worse", {fixAt(4, 50), fixAt(5, 40)}, "", {}, {"fixes 5"}},
      {"invalid", {fixAt(6, -1)}, "", {}, {"kCLErrorDomain 0"}},
      {"stopped", {fixAt(7, 50)}, "stop", {}, {}},
      {"started", {fixAt(8, 50)}, "start", {}, {}},
  };
  for (const auto& [what, fixes, then, atOnce, later] : cases) {
    SCOPED_TRACE(what);
    deliver(99);  // known before: no answer
    manager.requestLocation();
    service().deliver(fixes);
    EXPECT_EQ(delegate.read(), atOnce);
    if (then == "stop") manager.stopUpdatingLocation();
    if (then == "start") manager.startUpdatingLocation();
    pass(9.9);
    EXPECT_EQ(delegate.read(), Diary{});
    pass(0.2);
    EXPECT_EQ(delegate.read(), later);
  }
}

TEST_F(LocationServiceOfAProcess, TellsRegionCrossingsAfterTwentySecondsPastTheBorder) {
  deliver(0);
  manager.startMonitoring({"home", {0, 0}, 100});  // 100 m are 898 millionths; the border adds 180
  manager.startMonitoring({"away", {0, 0.01}, 100});
  EXPECT_EQ(delegate.read(), (Diary{"watching home", "watching away"}));
  expect({{1, 1070, {}}, {30, 1070, {}}});                                       // too near the border
  expect({{1, 1090, {}}, {19, 1090, {}}, {1, 1090, {"out home"}}});              // 20 s outside
  expect({{1, 700, {}}, {10, 800, {}}, {10, 700, {}}, {20, 700, {"in home"}}});  // the stay inside began anew
  expect({{1, 10000, {}}, {25, 10000, {"out home", "in away"}}});
}

TEST_F(LocationServiceOfAProcess, TellsNoCrossingOfARegionThatTheDelegateHasJustDropped) {
  delegate.inside = [&] {
    for (const auto& watched : manager.monitoredRegions()) manager.stopMonitoring(watched);
  };
  deliver(0);
  for (const double radius : {100, 200, 300}) manager.startMonitoring({concat(radius), {0, 0}, radius});
  delegate.read();
  expect({{25, 50000, {}}, {25, 50000, {"out 100"}}});  // one jump out of a whole ring ends it once
}

TEST_F(LocationServiceOfAProcess, WatchesAtMostTwentyRegionsOfAPossibleRadius) {
  CLLocationManager other;
  for (int i = 0; i < 20; ++i) other.startMonitoring({concat("r", i), {0, 0}, 100});
  manager.startMonitoring({"extra", {0, 0}, 100});
  EXPECT_EQ(delegate.read(), Diary{"not watching extra 5"});
  for (const double radius : {-0.001, HUGE_VAL, std::nan(""), 1'000'000.5}) {
    manager.startMonitoring({"r7", {1, 1}, radius});
    EXPECT_EQ(delegate.read(), Diary{"not watching r7 5"});
  }
  EXPECT_EQ(other.monitoredRegions()[7].radius, 100) << "a failure changes nothing";
  manager.startMonitoring({"r7", {1, 1}, 1'000'000});
  EXPECT_EQ(delegate.read(), Diary{"watching r7"});
  EXPECT_EQ(other.monitoredRegions()[7].description(),
            "CLCircularRegion (identifier:'r7', center:<+1.00000000,+1.00000000>, radius:1000000.00m)");
  for (const auto& region : other.monitoredRegions()) manager.stopMonitoring(region);
  EXPECT_TRUE(other.monitoredRegions().empty());
}

TEST_F(LocationServiceOfAProcess, TellsSignificantChangesEveryFiveMinutesAtMost) {
  deliver(7);
  manager.startMonitoringSignificantLocationChanges();
  EXPECT_EQ(delegate.read(), Diary{"fixes 7"});
  expect({{299, 9000, {}}, {1, 4490, {}}, {0, 4510, {"fixes 4510"}}, {299, 20000, {}}, {1, 20000, {"fixes 20000"}}});
  service().setAuthorizationStatus(authorizedWhenInUse);
  clock->advance(Seconds(300));
  deliver(40000);
  EXPECT_EQ(delegate.read(), Diary{"status 4"});
}

TEST(Location, PrintsItselfAndMeasuresAlongTheGeodesic) {
  const CLLocation fix{.coordinate = {48.1375, -11.5755}, .horizontalAccuracy = 5, .course = 90, .speed = 1.2};
  EXPECT_EQ(fix.description().substr(0, 76),
            "<+48.13750000,-11.57550000> +/- 5.00m (speed 1.20 mps / course 90.00) @ 1/1/");
  const CLLocation east{.coordinate = {0, 179.5}}, west{.coordinate = {0, -179.5}};
  EXPECT_NEAR(east.distanceFrom(west), 111319.490793, 1e-5);  // one degree of the equator, across the date line
}

}  // namespace
}  // namespace tarvo::platform
