#include "sync/UploadGate.h"

#include <gtest/gtest.h>

#include <functional>

#include <tarvo/platform/Clock.h>

#include "platform/foundation/Text.h"

namespace tarvo {
namespace {

using platform::Seconds;
using Pass = UploadGate::Pass;

struct Gate : testing::Test {
  Gate() { platform::Clock::install(clock); }
  bool admits(Pass pass = Pass::event) { return gate.admits(pass, options); }
  /// How long events are held back from now on.
  double waits(DeliveryError error, std::optional<Seconds> retryAfter = {}) {
    gate.failed(error, retryAfter);
    const auto start = clock->now();
    const double told = Seconds(gate.nextTry(options).value_or(start) - start).count();
    clock->advance(Seconds(told) - Seconds(0.001));
    EXPECT_EQ(admits(), told < 0.001);
    clock->advance(Seconds(0.002));
    EXPECT_TRUE(admits());
    return told;
  }

  const std::shared_ptr<platform::ManualClock> clock =
      std::make_shared<platform::ManualClock>(platform::dateSince1970(1718409600));  // midnight
  double draw = 0.5;
  bool reachable = true;
  DeliveryOptions options{.confirmed = true};
  UploadGate gate{[this] { return draw; }, [this] { return reachable; }};
};

TEST_F(Gate, WaitsLongerWithEachFailureAndAsLongAsTheBackendAsks) {
  for (const double expected : {0.5, 1., 2., 4., 8., 16., 32., 64., 128., 256., 450., 450.})
    EXPECT_DOUBLE_EQ(waits(DeliveryError::refused), expected);
  const std::tuple<DeliveryError, double, std::optional<Seconds>, double> cases[] = {
      {DeliveryError::timedOut, 0, {}, 0},
      {DeliveryError::throttled, 0, Seconds(120), 120},
      {DeliveryError::throttled, 0.5, Seconds(120), 450},
      {DeliveryError::throttled, 0, Seconds(1e300), 86400},
      {DeliveryError::unauthorized, 0, {}, 900},
      {DeliveryError::unauthorized, 0, Seconds(3600), 3600}};
  for (const auto& [error, drawn, retryAfter, expected] : cases) {
    draw = drawn;
    EXPECT_NEAR(waits(error, retryAfter), expected, 1e-6);
  }
}

TEST_F(Gate, EndsTheWaitWithASuccessTheHostOrTheNetworkAndStartsSmallAgain) {
  const std::function<void()> ends[] = {[this] { gate.succeeded(); }, [this] { EXPECT_TRUE(admits(Pass::host)); },
                                        [this] { reachable = true; }};
  for (const auto& end : ends) {
    for (int i = 0; i < 5; ++i) gate.failed(DeliveryError::unauthorized, {});
    EXPECT_FALSE(admits()) << "the network was there all the time";
    reachable = false;
    gate.failed(DeliveryError::unauthorized, {});
    EXPECT_FALSE(admits() || admits(Pass::afterFullBatch));
    EXPECT_TRUE(gate.nextTry(options));
    end();
    EXPECT_FALSE(gate.nextTry(options));
    EXPECT_TRUE(admits());
    reachable = true;
    EXPECT_DOUBLE_EQ(waits(DeliveryError::refused), 0.5);
    gate.succeeded();
  }
}

TEST_F(Gate, HoldsBackWhatADayMayNotCostAlsoAfterARestart) {
  options = {.networkIsMetered = true, .meteredBytesPerDay = 100};
  // 2024-06-15 is day 19889; what is kept of another day does not count, unless the
  // clock has just been set back over midnight.
  const std::pair<const char*, bool> cases[] = {{"", true},          {"19889", true},    {"x 61", true},
                                                {"19887 61", true},  {"19891 61", true}, {"19889 60", true},
                                                {"19889 61", false}, {"19890 61", false}};
  for (const auto& [kept, open] : cases) {
    UploadGate later{[] { return 0.0; }, [] { return true; }};
    later.addBytes(39);  // before anybody looked
    later.restore(kept);
    for (const Pass pass : {Pass::event, Pass::afterFullBatch, Pass::host})
      EXPECT_EQ(later.admits(pass, options), open) << kept;
    EXPECT_TRUE(later.admits(Pass::event, {.meteredBytesPerDay = 100})) << "not on other networks";
    EXPECT_TRUE(later.kept().ends_with(platform::concat(" ", later.bytesToday()))) << later.kept();
  }
}

}  // namespace
}  // namespace tarvo
