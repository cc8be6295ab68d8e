#include "receivers/Diary.h"
#include "receivers/Line.h"
#include "receivers/Nmea.h"
#include "support/WholeSdk.h"
#include "unit/Intake.h"

namespace tarvo::unit {
namespace {

using platform::Seconds;
using receivers::Condition;

/// Takes what a receiver tells as the unit does, and shows it to the test.
struct Taken final : receivers::Listener {
  void received(const test::Diary::Fixes& fixes) override { intake.received(fixes), diary.received(fixes); }
  void changed(Condition now, const std::string& line) override { intake.changed(now, line), diary.changed(now, line); }
  Loop loop;
  Intake intake{loop, nullptr, {[] {}, [](Condition, const std::string&) {}}};
  test::Diary diary;
};

using AUnit = test::WholeSdk;

TEST_F(AUnit, GoesOnAfterItsReceiverWasSilentForAnHour) {
  const auto taken = std::make_shared<Taken>();
  const test::Line line(home.path() / "ttyUSB0");
  startBackend();
  Tarvo::setDeliveryOptions({.confirmed = true});
  Tarvo tarvo = registered();
  taken->intake.open();
  // The location service may let go of it last.
  platform::LocationService::shared().setSource(std::shared_ptr<receivers::Receiver>(
      receivers::openNmea(line.path, {}, *taken).release(), [taken](const auto* receiver) { delete receiver; }));
  ASSERT_TRUE(taken->diary.waitForConditions({Condition::searching}));
  std::size_t fixes = 0;
  const auto give = [&] {
    const test::Drive drive(std::llround(platform::secondsSince1970(clock->now())) - 30);
    ASSERT_TRUE(line.send(drive.text(20, 30)) && taken->diary.waitForFixes(fixes += 10));
    waitUntilIdle();
  };

  give();
  const auto last = clock->now();
  clock->advance(Seconds(3600));
  give();

  const auto health = tarvo.health();
  EXPECT_EQ(health.gaps, (std::vector<Health::Gap>{{last, last + Seconds(3600), GapCause::receiverSilent}}));
  EXPECT_GE(health.positions.stored, 4);
  settle();
  expectEachIndexOnce(health.positions.stored);
}

}  // namespace
}  // namespace tarvo::unit
