#include "support/FreshProcess.h"
#include "support/WholeSdk.h"

#include <cmath>

namespace tarvo {
namespace {

using platform::CLAuthorizationStatus;
using platform::Seconds;

class HealthOfADevice : public test::WholeSdk {
 protected:
  /// Ranges, removals and gaps, in seconds since the start.
  static std::string told(const Tarvo& tarvo) {
    const Health health = tarvo.health();
    const auto at = [](platform::Date date) { return std::llround(platform::secondsSince1970(date) - kStart); };
    std::string text;
    for (const auto& [first, last] : health.positions.acknowledgedWithoutAnswer)
      text += platform::concat(first, "..", last, " ");
    if (health.positions.removedUpTo) text += platform::concat("removed ", health.positions.removed, " ");
    for (const auto& [since, until, cause] : health.gaps)
      text += platform::concat(at(since), "-", until ? std::to_string(at(*until)) : "", " ", nameOf(cause), " ");
    return text;
  }

  static std::optional<std::string> entry(std::string_view replacement = {}) {
    std::optional<std::string> text;
    auto& context = EngineParts::of(engine()).store.managedObjectContext();
    context.performAndWait([&] {
      if (!replacement.empty()) context.setMetadata("ledger", std::string(replacement));
      EXPECT_FALSE(context.save());
      text = context.metadata("ledger").value();
    });
    return text;
  }
};

TEST_F(HealthOfADevice, TellsWhyThereIsAHole) {
  Tarvo tarvo;
  platform::UIDevice::current().setBattery(platform::UIDeviceBatteryState::unplugged, 0.5);
  tarvo.activate(Tarvo::LOCAL_BACKGROUND);
  auto& application = platform::UIApplication::shared();
  const auto none = [] {};
  const struct {
    GapCause cause;
    std::function<void()> begin, end;
    int length;  ///< an event that is stored ends it, or the next fix a second later
  } holes[] = {
      {GapCause::receiverSilent, none, none, 601},
      {GapCause::standingStill, [] { deliver(fixAt(*records().back().latitude, kStart)); }, none, 601},
      {GapCause::refusedFixes, [] { deliver(fixAt(91, kStart)); }, none, 601},
      {GapCause::notPermitted, [] { permit(CLAuthorizationStatus::denied); },
       [] { permit(CLAuthorizationStatus::authorizedAlways); }, 600},
      {GapCause::background, [&] { application.didEnterBackground(); }, [&] { application.didBecomeActive(); }, 600},
      {GapCause::stopped, [&] { tarvo.activate(Tarvo::DEACTIVE_ALL); },
       [&] { tarvo.activate(Tarvo::LOCAL_BACKGROUND); }, 600},
  };
  for (const auto& [cause, begin, end, length] : holes) {
    drive(1);
    const auto since = std::llround(platform::secondsSince1970(clock->now()) - kStart);
    const std::string before = told(tarvo);
    begin();
    waitUntilIdle();
    clock->advance(Seconds(600));
    EXPECT_EQ(told(tarvo), before + platform::concat(since, "- ", nameOf(cause), " "));
    end();
    waitUntilIdle();
    drive(1);
    EXPECT_EQ(told(tarvo), before + platform::concat(since, "-", since + length, " ", nameOf(cause), " "));
  }
  EXPECT_EQ(tarvo.health().fixes.received, 14u);
  EXPECT_EQ(tarvo.health().positions.oldestUnsentAge, clock->now() - platform::dateSince1970(kStart + 1));
}

TEST_F(HealthOfADevice, LastsOverRestartsAndKillsAndCostsNothingWhileAllIsWell) {
  const struct {
    double pause;  ///< before the process starts
    std::function<void(Tarvo&)> work;
    const char* told;
  } processes[] = {
      {0,
       [this](Tarvo& tarvo) {
         tarvo.activate(Tarvo::LOCAL_BACKGROUND);
         drive(3);
         engine().markLocationAsSentUntilIndex("0", "0");
         EngineParts::of(engine()).ledger.didAcknowledge({0, 0}, true, clock->now());
         EXPECT_FALSE(entry()) << "nothing is lost without it";
         EngineParts::of(engine()).ledger.didAcknowledge({1, 2}, false, clock->now());
         engine().markLocationAsSentUntilIndex("2", "1");
         clock->advance(Seconds(1000));
         drive(1);  // killed: each was written with what it is about
       },
       "1..2 3-1004 receiver_silent "},
      // Who has not collected yet tells what the file has.
      {1500, [](Tarvo&) {}, "1..2 3-1004 receiver_silent "},
      {2000,
       [this](Tarvo& tarvo) {
         tarvo.activate(Tarvo::LOCAL_BACKGROUND);
         clock->advance(Seconds(400));
         activate(tarvo, Tarvo::DEACTIVE_ALL);
         clock->advance(Seconds(500));
         EngineParts::of(engine()).ledger.didRemove(1, 0);
         EXPECT_TRUE(Tarvo::waitUntilIdle(60));
       },
       "1..2 removed 1 3-1004 receiver_silent 1004-2000 not_running 2000-2400 receiver_silent 2400- stopped "},
      {5000, [this](Tarvo& tarvo) { tarvo.activate(Tarvo::LOCAL_BACKGROUND), drive(1), entry("[]"); },
       "1..2 removed 1 3-1004 receiver_silent 1004-2000 not_running 2000-2400 receiver_silent 2400-2900 stopped "
       "2900-5000 not_running "},
      {6000, [this](Tarvo& tarvo) { tarvo.activate(Tarvo::LOCAL_BACKGROUND), drive(1); }, "5001-6000 not_running "},
  };
  for (const auto& [pause, work, expected] : processes) {
    const auto inChild = [&] {
      clock->advanceTo(platform::dateSince1970(kStart + pause));
      Tarvo tarvo;
      work(tarvo);
      waitUntilIdle();
      EXPECT_EQ(told(tarvo), expected);
      EXPECT_EQ(diary.count("Ledger: "), pause == 6000 ? 1u : 0u);
      return HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(test::inFreshProcess(inChild), 0) << pause;
  }
}

}  // namespace
}  // namespace tarvo
