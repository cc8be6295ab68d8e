#include <gtest/gtest.h>

#include "support/TempDir.h"
#include "unit/DeviceClock.h"
#include "unit/QuickEnds.h"
#include "unit/StatusLine.h"
#include "unit/Uploads.h"

namespace tarvo::unit {
namespace {

using platform::Date;
using platform::dateSince1970;
using platform::Seconds;

/// A machine that was started so long ago, and whose clock shows so much.
struct Machine final : platform::Clock {
  Date now() const override { return dateSince1970(shown); }
  Seconds monotonic() const override { return Seconds(running); }
  std::optional<Seconds> realTimeUntil(Date) const override { return std::nullopt; }
  double shown = 0, running = 0;
};

TEST(DeviceClock, ShowsTheReceiversTimeUntilTheMachineKnowsBetter) {
  const double built = 1'700'000'000;
  const auto machine = std::make_shared<Machine>();
  DeviceClock clock(machine, dateSince1970(built));
  const struct {
    const char* what;
    double running, shown;
    std::optional<double> fix;
    double expected;
    bool plausible;
  } steps[] = {
      {"a start in 1970", 10, 10, {}, 10, false},
      {"a receiver that does not know either", 20, 20, built - 1, 20, false},
      {"a fix", 30, 30, built + 1000, built + 1000, true},
      {"time goes on", 90, 90, {}, built + 1060, true},
      {"a fix that took its time changes nothing", 100, 100, built + 1065, built + 1070, true},
      {"a later one does", 110, 110, built + 1085, built + 1085, true},
      {"a receiver that was a year ahead", 120, 120, built - 10 + 86400, built - 10 + 86400, true},
      {"and knows better now", 130, 130, built + 1105, built + 1105, true},
      {"the machine is set", 140, built + 5000, {}, built + 5000, true},
      {"and believed alone", 150, built + 5010, built + 9000, built + 5010, true},
  };
  for (const auto& step : steps) {
    machine->running = step.running;
    machine->shown = step.shown;
    if (step.fix) clock.learn(dateSince1970(*step.fix));
    EXPECT_EQ(platform::secondsSince1970(clock.now()), step.expected) << step.what;
    EXPECT_EQ(clock.isPlausible(), step.plausible) << step.what;
  }
  EXPECT_EQ(clock.realTimeUntil(dateSince1970(built + 5015)), Seconds(5));
}

TEST(Uploads, TryAgainAfterTheIntervalAndNotBeforeAFailureAllows) {
  const struct {
    const char* what;
    int unsent, awaiting;
    std::optional<double> lastTry, nextTry;
    NextPass expected;
  } cases[] = {
      {"nothing", 0, 0, 900, 2000, {false, {}}},
      {"never tried", 1, 0, {}, {}, {true, Seconds(180)}},
      {"long ago", 0, 2, 820, {}, {true, Seconds(180)}},
      {"just now", 1, 0, 940, {}, {false, Seconds(120)}},
      {"has to wait for longer", 1, 0, 940, 1500, {false, Seconds(500)}},
      {"has waited, and not for the interval", 1, 0, 999, 1000, {false, Seconds(179)}},
      {"almost", 1, 0, 820.5, {}, {false, Seconds(1)}},
      {"a clock that was set back", 1, 0, 5000, {}, {true, Seconds(180)}},
  };
  for (const auto& [what, unsent, awaiting, lastTry, nextTry, expected] : cases) {
    Health health;
    health.positions.unsent = unsent;
    health.positions.awaiting = awaiting;
    if (lastTry) health.delivery.lastTry = dateSince1970(*lastTry);
    if (nextTry) health.delivery.nextTry = dateSince1970(*nextTry);
    EXPECT_EQ(nextPass(health, dateSince1970(1000), Seconds(180)), expected) << what;
  }
}

TEST(QuickEnds, MakeThePausesGrowUntilAStartSucceeds) {
  const test::TempDir folder;
  const struct {
    const char* what;
    double ranFor, pause;
    bool well = false;
  } starts[] = {{"the first", 1, 0},
                {"failed", 1, 0},
                {"twice", 1, 5},
                {"and again", 599, 15},
                {"after ten minutes", 600, 35},
                {"that is not quick", 1, 0},
                {"failed", 1, 0},
                {"twice, and ends as it should", 1, 5, true},
                {"anew", 1, 0},
                {"failed", 1, 0},
                {"and so on", 1, 5},
                {"", 1, 15},
                {"", 1, 35},
                {"", 1, 75},
                {"", 1, 155},
                {"no longer", 1, 300},
                {"than five minutes", 1, 300}};
  double now = 100;
  for (const auto& [what, ranFor, pause, well] : starts) {
    const QuickEnds process(folder.path());
    EXPECT_EQ(process.beforeStart(Seconds(now)), Seconds(pause)) << what;
    now += pause + ranFor;
    if (well) process.endedWell();
  }
  EXPECT_EQ(QuickEnds(folder.path() / "missing").beforeStart(Seconds(1)), Seconds(0));
  EXPECT_EQ(QuickEnds("").beforeStart(Seconds(1)), Seconds(0));
}

TEST(StatusLine, TellsAPersonWhatIsLeft) {
  Health health;
  EXPECT_EQ(statusLine("lost", health, dateSince1970(0)), "lost; 0 positions, 0 unsent");
  health.positions.stored = 1'204'567;
  health.positions.unsent = 2;
  health.positions.awaiting = 1;
  health.delivery.lastAcknowledgement = dateSince1970(1000);
  EXPECT_EQ(statusLine("receiving from gpsd", health, dateSince1970(1012)),
            "receiving from gpsd; 1,204,567 positions, 3 unsent; last acknowledged 12 s ago");
  health.delivery.lastError = DeliveryError::offline;
  health.delivery.triesSince = 4;
  EXPECT_EQ(statusLine("r", health, dateSince1970(1000 + 7200)),
            "r; 1,204,567 positions, 3 unsent; last acknowledged 2 h ago; failed 4 times: offline");
}

}  // namespace
}  // namespace tarvo::unit
