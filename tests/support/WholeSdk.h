#pragma once

#include <gtest/gtest.h>

#include <functional>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/LocationService.h>
#include <tarvo/platform/UserDefaults.h>

#include "engine/EngineParts.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/WorkInFlight.h"
#include "sandbox/Backend.h"
#include "support/LogDiary.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// Writes down what it is told, and does what a test asks of it from inside.
class DiaryDelegate : public TarvoDelegate {
 public:
  void tarvoDidReceiveNewLocations(Tarvo& tarvo, const std::vector<platform::CLLocation>& newLocations) override {
    batches.push_back(newLocations.size());
    if (inside) inside(tarvo);
  }
  void tarvoOnRouteMatched(Tarvo&, const LocationsHistory& history) override {
    matched.push_back(history.pasttrips.at(0).pasttrip_id.value_or(-1));
  }
  void tarvoOnPredictionUpdate(Tarvo&, const Trip&) override { ++predictions; }

  std::vector<std::size_t> batches;
  std::vector<std::int64_t> matched;
  int predictions = 0;
  std::function<void(Tarvo&)> inside;
};

/// The whole SDK in a home of its own, on a clock that stands still, beside a real backend on loopback.
class WholeSdk : public testing::Test {
 public:
  static constexpr double kStart = 1718445600;  // 2024-06-15 10:00:00 UTC

  void SetUp() override {
    diary.clear();
    platform::setHomeDirectory(home.path());
    platform::Clock::install(clock);
    ASSERT_TRUE(platform::setInfoDictionary(
        {{"CFBundleIdentifier", "org.example.host"}, {"TarvoApiKey", "key"}, {"TarvoClientID", "demo"}}));
  }

  /// Before the first touch of the SDK.
  void startBackend() {
    backend.start();
    ASSERT_TRUE(LocationManager::setRemoteWebServerURL(backend.baseURL()));
  }

  static platform::CLLocation fixAt(double latitude, double seconds) {
    return {.coordinate = {latitude, 11.5},
            .altitude = 500,
            .horizontalAccuracy = 10,
            .verticalAccuracy = 10,
            .course = 0,
            .speed = 3,
            .timestamp = platform::dateSince1970(seconds)};
  }

  // Each of these has had all its effects on return.
  template <class... Fixes>
  static void deliver(const Fixes&... fixes) {
    platform::LocationService::shared().deliver({fixes...});
    waitUntilIdle();
  }
  static void permit(platform::CLAuthorizationStatus status) {
    platform::LocationService::shared().setAuthorizationStatus(status);
    waitUntilIdle();
  }
  static void activate(Tarvo& tarvo, std::int64_t mode) {
    tarvo.activate(mode);
    waitUntilIdle();
  }
  static void push(Tarvo& tarvo) {
    EXPECT_TRUE(tarvo.didReceiveRemoteNotification({{"messageFrom", "tarvo"}}));
    waitUntilIdle();
  }
  static void upload() {
    engine().sendDataInBatchToRemoteWebServer();
    waitUntilIdle();
  }
  static auto records(std::optional<platform::Date> since = {}) {
    return engine().getLocationhistory(since, {}).locations.toVector();
  }
  /// The actions of the records that this method has made, each with a blank.
  static std::string recorded(std::string_view method, std::optional<platform::Date> since = {}) {
    std::string actions;
    for (const auto& record : records(since))
      if (record.localisationMethod == method) actions += *record.serviceAction + " ";
    return actions;
  }

  /// One fix a second, each 111 m north of the one before.
  void drive(int fixes) {
    for (int i = 0; i < fixes; ++i) {
      clock->advance(platform::Seconds(1));
      latitude_ += 0.001;
      deliver(fixAt(latitude_, platform::secondsSince1970(clock->now())));
    }
  }

  /// Stores fixes while nothing is uploaded, so that no pass of their own may or may not find them already stored.
  void collect(int fixes) {
    const std::int64_t mode = Tarvo::ACTIVATE_STATUS();
    Tarvo::setACTIVATE_STATUS(Tarvo::LOCAL_BACKGROUND);
    drive(fixes);
    Tarvo::setACTIVATE_STATUS(mode);
  }

  static void waitUntilIdle() { ASSERT_TRUE(platform::WorkInFlight::waitUntilIdle(platform::Seconds(60))); }

  static LocationManager& engine() { return LocationManager::sharedInstance(); }

  /// As a program does at its end: starts passes and lets the clock run on until nothing is left.
  void settle() {
    for (int pass = 0; pass < 20; ++pass) {
      upload();
      const auto status = engine().syncStatus();
      if (status.unsent + status.awaiting == 0) return;
      clock->advance(platform::Seconds(180));
    }
    FAIL() << "positions are left";
  }

  /// Activated, registered and past the first 180 seconds of a fresh device.
  Tarvo registered(std::int64_t mode = Tarvo::BACKEND_BACKGROUND) {
    Tarvo tarvo;
    NetworkManager::setApiKeySecret("secret");
    activate(tarvo, mode);
    clock->advance(platform::Seconds(180));
    return tarvo;
  }

  Tarvo online(std::int64_t mode = Tarvo::BACKEND_BACKGROUND) {
    startBackend();
    return registered(mode);
  }

  void expectEachIndexOnce(std::int64_t positions) {
    const auto holdings = backend.holdings();
    EXPECT_EQ(holdings.positions, positions);
    EXPECT_EQ(holdings.missing, 0);
    EXPECT_EQ(holdings.repeats, 0);
  }

  TempDir home;
  LogDiary& diary = LogDiary::installed();
  std::shared_ptr<platform::ManualClock> clock =
      std::make_shared<platform::ManualClock>(platform::dateSince1970(kStart));
  sandbox::Backend backend{{"demo", "key", "secret"}, home.path() / "sandbox.sqlite"};

 private:
  double latitude_ = 48;
};

}  // namespace tarvo::test
