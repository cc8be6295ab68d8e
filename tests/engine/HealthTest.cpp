#include "support/FreshProcess.h"
#include "support/SetClock.h"
#include "support/WholeSdk.h"

#include <cmath>

namespace tarvo {
namespace {

using platform::concat;
using platform::Seconds;
using enum platform::CLAuthorizationStatus;

class HealthOfADevice : public test::WholeSdk {
 protected:
  static auto at(platform::Date date) { return std::llround(platform::secondsSince1970(date) - kStart); }
  /// Ranges and gaps, in seconds since the start.
  static std::string told(const Tarvo& tarvo) {
    const Health health = tarvo.health();
    std::string text;
    for (const auto& [first, last] : health.positions.acknowledgedWithoutAnswer) text += concat(first, "..", last, " ");
    for (const auto& [since, until, cause] : health.gaps)
      text += concat(at(since), "-", until ? std::to_string(at(*until)) : "", " ", nameOf(cause), " ");
    return text;
  }
};

TEST_F(HealthOfADevice, TellsWhyThereIsAHole) {
  Tarvo tarvo;
  platform::UIDevice::current().setBattery(platform::UIDeviceBatteryState::unplugged, 0.5);
  tarvo.activate(4);
  auto& application = platform::UIApplication::shared();
  const std::function<void()> none;
  const auto stand = [] { deliver(fixAt(*records().back().latitude, kStart)); };
  const auto lose = [] { deliver(fixAt(91, kStart)); };
  using Step = std::function<void()>;
  const std::tuple<const char*, Step, Step, Step> holes[] = {
      {"receiver_silent", none, none, none},
      {"receiver_silent", stand, none, none},  // it stood when the receiver fell silent
      {"standing_still", stand, stand, none},
      {"refused_fixes", lose, lose, none},
      {"not_permitted", [] { permit(denied); }, none, [] { permit(authorizedAlways); }},
      {"background", [&] { application.didEnterBackground(); }, none, [&] { application.didBecomeActive(); }},
      {"stopped", [&] { tarvo.activate(-4); }, none, [&] { tarvo.activate(4); }}};
  for (const auto& [cause, begin, during, end] : holes) {
    drive(1);
    const auto since = at(clock->now());
    const std::string before = told(tarvo);
    if (begin) begin();
    waitUntilIdle();
    for (int i = 0; i < 3; ++i) clock->advance(Seconds(200)), during ? during() : void();
    EXPECT_EQ(told(tarvo), before + concat(since, "- ", cause, " "));
    if (end) end();
    waitUntilIdle();
    drive(1);  // unless an event has been stored a second before
    EXPECT_EQ(told(tarvo), before + concat(since, "-", since + (end ? 600 : 601), " ", cause, " "));
  }
  EXPECT_EQ(tarvo.health().positions.oldestUnsentAge, clock->now() - platform::dateSince1970(kStart + 1));
}

TEST_F(HealthOfADevice, LastsOverRestartsAndKills) {
  const auto collect = [this](Tarvo& tarvo) { activate(tarvo, 4), drive(1); };
  const auto fallSilent = [&](Tarvo& tarvo) {
    collect(tarvo);
    EngineParts::of(engine()).ledger.didAcknowledge({1, 2}, false, clock->now());
    clock->advance(Seconds(1000));
    drive(1);  // then killed
  };
  const auto damage = [&](Tarvo& tarvo) {
    collect(tarvo);
    auto& context = EngineParts::of(engine()).store.managedObjectContext();
    context.performAndWait([&] { context.setMetadata("ledger", "[]"), (void)context.save(); });
  };
  const std::tuple<double, double, std::function<void(Tarvo&)>, const char*> processes[] = {
      {0, 0, fallSilent, "1..2 1-1002 receiver_silent "},
      {1500, 0, [](Tarvo&) {}, "1..2 1-1002 receiver_silent "},  // has not collected: tells what the file has
      {2000, 0, damage, "1..2 1-1002 receiver_silent 1002-2000 not_running "},
      {6000, 0, collect, "2001-6000 not_running "},
      {7000, 1e7, collect, "2001-6000 not_running 6001-7000 not_running "},  // its position is of a time to come
      {9000, -kStart, collect, "2001-6000 not_running 6001-7000 not_running 7001-9000 not_running "}};
  for (const auto& [start, wrongBy, work, expected] : processes) {
    const auto inChild = [&] {
      clock->advanceTo(platform::dateSince1970(kStart + start));
      const auto set = test::SetClock::installed(clock);
      set->offset = wrongBy;
      Tarvo tarvo;
      work(tarvo);
      set->offset = 0;
      if (wrongBy > 0) EngineParts::of(engine()).checkpoint();
      EXPECT_EQ(told(tarvo), expected);
      EXPECT_EQ(diary.count("Ledger: "), start == 6000 ? 1u : 0u);
      return HasFailure() ? 1 : 0;
    };
    EXPECT_EQ(test::inFreshProcess(inChild), 0) << start;
  }
}

}  // namespace
}  // namespace tarvo
