#pragma once

#include <gtest/gtest.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include <atomic>
#include <functional>

#include "Backend.h"
#include "net/EngineLink.h"
#include "platform/foundation/Activity.h"
#include "platform/foundation/Text.h"
#include "settings/Settings.h"
#include "support/LogDiary.h"
#include "support/TempDir.h"

namespace tarvo::test {

/// An engine that writes what it is told into the system log, so that one diary holds the order of lines and effects.
class DiaryEngine final : public EngineLink {
 public:
  std::optional<NewestTrip> newest;
  std::atomic<bool> received{false};

  NetworkManager& client() override {
    static auto* own = new NetworkManager;
    return *own;
  }

  void markLocationAsSentUntilIndex(const std::string& locationIndex, const std::string& firstLoc) override {
    note("mark ", firstLoc, "-", locationIndex);
  }
  void sendDataInBatchToRemoteWebServer() override { note("send"); }
  void addNewUserToDatabase(const std::string& uuid, const std::string& creationDate) override {
    note("user ", uuid, " ", creationDate);
    Settings::shared().adoptUserUUID(uuid);
  }
  bool alreadyReceivedUUID() const override { return received; }
  void setAlreadyReceivedUUID(bool value) override {
    note("received ", value);
    received = value;
  }
  std::optional<NewestTrip> getLastPastTrip() override { return newest; }
  void submitLastTrips(std::vector<platform::Dictionary> trips) override { note("trips ", trips.size()); }
  void submitPOIs(std::vector<platform::Dictionary> pois) override { note("pois ", pois.size()); }
  void predictionStored() override { note("prediction"); }

 private:
  template <class... Parts>
  static void note(const Parts&... parts) {
    platform::NSLog(platform::concat("engine: ", parts...));
  }
};

/// A client, a backend that it talks to and an engine that it reports to.
class ClientTest : public ::testing::Test {
 protected:
  ClientTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    settings.setRemoteWebServerURL(backend.address(), false);
    settings.setClientID("acme");
    EngineLink::install(&engine);
  }

  void identify() {
    settings.setUserUUID("user-1");
    settings.storeUserSecret("s3cret");
  }
  static void finish() { ASSERT_TRUE(platform::Activity::waitUntilIdle(platform::Seconds(20))); }
  /// Runs an operation of the client and waits until all that follows from it is done.
  template <class Operation, class... Arguments>
  void call(Operation operation, const Arguments&... arguments) {
    std::invoke(operation, client(), arguments...);
    finish();
  }
  /// Posts the batch 0-9.
  void sendBatch() { call(&NetworkManager::sendDataInBatchToRemoteWebServer, "[]", "0", "9"); }
  /// Built at the first touch.
  NetworkManager& client() {
    if (!client_) client_.emplace();
    return *client_;
  }
  void dropClient() { client_.reset(); }

  /// The texts are in the log in this order.
  static void expectInOrder(std::initializer_list<const char*> texts) {
    long position = -1;
    for (const char* text : texts) {
      const long next = LogDiary::installed().find(text, static_cast<std::size_t>(position + 1));
      ASSERT_GT(next, position) << "missing or too early: " << text;
      position = next;
    }
  }

 private:
  struct Home : TempDir {
    Home() { platform::setHomeDirectory(path()); }
  };
  Home home_;  // before the first touch of anything below

 protected:
  Backend backend;
  DiaryEngine& engine = *new DiaryEngine;
  Settings& settings = Settings::shared();
  platform::UserDefaults& defaults = platform::UserDefaults::standard();

 private:
  std::optional<NetworkManager> client_;
};

}  // namespace tarvo::test
