#include "limits/PositionInsert.h"
#include "support/Process.h"
#include "support/Samples.h"
#include "support/Sdk.h"
#include "works/Pairs.h"

namespace tarvo::bench {
namespace {

constexpr const char* kCount = "SELECT count(*) FROM Locations";

/// Fixes handed to the engine as the location service does, one a call; stored when the SDK has come to rest.
struct SdkIntake {
  SdkIntake() {
    activateSdk();
    expectedRows = next = RawStore(sdkStore()).number(kCount);
  }
  static std::filesystem::path sdkStore() { return storeIn(limitStore().parent_path()); }

  void run(std::int64_t items) {
    EngineParts& engine = parts();
    for (std::int64_t end = next + items; next < end; ++next)
      engine.didUpdateLocations(engine.locationManager, {fix(next)});
    expectedRows += items;
    waitUntilIdle();
  }
  void check() const {
    if (RawStore(sdkStore()).number(kCount) != expectedRows) fail("intake: positions are missing");
  }

  std::int64_t next = 0;
  std::int64_t expectedRows = 0;
};

struct LimitIntake {
  LimitIntake() : store(limitStore()), insert(store), next(store.number(kCount)) {}

  void run(std::int64_t items) {
    for (std::int64_t end = next + items; next < end; ++next) insert.insert(next, /*unsent=*/true);
  }

  RawStore store;
  PositionInsert insert;
  std::int64_t next;
};

SdkIntake* sdk = nullptr;
LimitIntake* limit = nullptr;

}  // namespace

void addIntakeWorks(std::vector<Work>& works) {
  works.push_back({"intake.sdk", Work::Timing::rate, 2000, [](std::int64_t items) {
                     if (sdk == nullptr) sdk = new SdkIntake;
                     sdk->run(items);
                   }});
  works.push_back({"intake.limit", Work::Timing::rate, 2000, [](std::int64_t items) {
                     if (limit == nullptr) limit = new LimitIntake;
                     limit->run(items);
                   }});
}

void checkIntakeWorks() {
  if (sdk != nullptr) sdk->check();
  if (limit != nullptr && limit->store.number(kCount) != limit->next) fail("intake limit: positions are missing");
}

}  // namespace tarvo::bench
