#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "settings/EngineLink.h"
#include "settings/Settings.h"

namespace tarvo::test {

/// An engine that writes what it is told into the system log, so that one diary holds the order of lines and effects.
class DiaryEngine : public EngineLink {
 public:
  NewestTrip newest;
  std::atomic<bool> received{false};
  std::function<void()> duringPass = [] {};

  NetworkManager& client() override { platform::fatalError("this engine has no client"); }
  void acknowledge(const std::string& locationIndex, const std::string& firstLoc, const BatchEnd& end) override {
    note("mark ", firstLoc, "-", locationIndex, end.answered ? "" : " without an answer");
  }
  void batchFailed(const BatchEnd& end) override { note("failed ", static_cast<int>(end.error)); }
  void startPass() override {
    note("send");
    duringPass();
  }
  void storeUser(const std::string& uuid, const std::string& creationDate) override {
    note("user ", uuid, " ", creationDate);
    Settings::shared().adoptUserUUID(uuid);
  }
  bool alreadyReceivedUUID() const override { return received; }
  void setAlreadyReceivedUUID(bool value) override {
    note("received ", value);
    received = value;
  }
  NewestTrip newestTrip() override { return newest; }
  void submitLastTrips(std::vector<platform::Dictionary> trips) override { note("trips ", trips.size()); }
  void submitPOIs(std::vector<platform::Dictionary> pois) override { note("pois ", pois.size()); }
  void predictionStored() override { note("prediction"); }

 private:
  template <class... Parts>
  static void note(const Parts&... parts) {
    platform::NSLog(platform::concat("engine: ", parts...));
  }
};

}  // namespace tarvo::test
