#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/Text.h"
#include "platform/foundation/WorkInFlight.h"
#include "platform/location/CLLocationManager.h"
#include "support/SetClock.h"
#include "support/TempDir.h"

namespace tarvo::platform {

/// Writes down all that it is told, one line each; fixes go by the millionth part of their longitude.
class DiaryDelegate : public CLLocationManagerDelegate {
 public:
  std::function<void()> inside;  ///< done in each delivery of fixes or of a region that was left

  void didUpdateLocations(CLLocationManager&, const std::vector<CLLocation>& locations) override {
    std::string line = "fixes";
    for (const CLLocation& fix : locations) line += concat(" ", std::int64_t(fix.coordinate.longitude * 1e6 + 0.5));
    write(line);
    if (inside) inside();
  }
  void didFailWithError(CLLocationManager&, const Error& error) override {
    write(concat(error.domain, " ", error.code));
  }
  void didChangeAuthorization(CLLocationManager&, CLAuthorizationStatus status) override {
    write(concat("status ", static_cast<std::int64_t>(status)));
  }
  void didStartMonitoring(CLLocationManager&, const CLCircularRegion& region) override {
    write("watching " + region.identifier);
  }
  void monitoringDidFail(CLLocationManager&, const std::optional<CLCircularRegion>& region,
                         const Error& error) override {
    write(concat("not watching ", region->identifier, " ", error.code));
  }
  void didEnterRegion(CLLocationManager&, const CLCircularRegion& region) override { write("in " + region.identifier); }
  void didExitRegion(CLLocationManager&, const CLCircularRegion& region) override {
    write("out " + region.identifier);
    if (inside) inside();
  }

  /// What was written since the last look, after all deliveries.
  std::vector<std::string> read() {
    if (!WorkInFlight::waitUntilIdle(Seconds(10))) return {"still busy after 10 s"};
    MutexLock lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  void write(std::string line) {
    MutexLock lock(mutex_);
    lines_.push_back(std::move(line));
  }

  Mutex mutex_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
};

using Diary = std::vector<std::string>;

/// A fix on the equator; one millionth of a degree is about 11 cm.
inline CLLocation fixAt(int microDegreesEast, double accuracyMetres = 5) {
  return {.coordinate = {0, microDegreesEast * 1e-6},
          .horizontalAccuracy = accuracyMetres,
          .timestamp = Clock::current()->now()};
}

/// A process with an empty home and a clock that is moved by hand: stands before the manager is made.
struct Process {
  Process() { setHomeDirectory(home.path()); }
  test::TempDir home;
  std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(dateSince1970(1'000'000));
  std::shared_ptr<test::SetClock> wall = test::SetClock::installed(clock);
};

/// Such a process with a manager, whose delegate has read of the first permission.
class LocationTest : public testing::Test, protected Process {
 protected:
  LocationTest() {
    manager.setDelegate(&delegate);
    EXPECT_EQ(delegate.read(), Diary{"status 3"});
  }
  static LocationService& service() { return LocationService::shared(); }
  static void deliver(int place) { service().deliver({fixAt(place)}); }

  /// Meanwhile somebody sets the wall clock, forward or back by some years.
  void pass(double seconds) {
    wall->offset = 3652 * 86400.0 * (++leaps * 2 % 3);
    clock->advance(Seconds(seconds));
  }

  /// A fix some time later and what is told then.
  struct Step {
    double secondsLater;
    int place;
    Diary told;
  };
  void expect(const std::vector<Step>& steps) {
    for (const auto& [later, place, told] : steps) {
      SCOPED_TRACE(place);
      pass(later);
      deliver(place);
      EXPECT_EQ(delegate.read(), told);
    }
  }

  DiaryDelegate delegate;
  CLLocationManager manager;
  int leaps = 0;
};

}  // namespace tarvo::platform
