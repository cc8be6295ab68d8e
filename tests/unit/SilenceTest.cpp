#include "receivers/Diary.h"
#include "receivers/Line.h"
#include "receivers/Nmea.h"
#include "support/WholeSdk.h"
#include "unit/Intake.h"

namespace tarvo::unit {
namespace {

using platform::Seconds;

/// Takes what a receiver tells as the unit does, and shows it to the test.
struct Taken final : receivers::Listener {
  void received(const test::Diary::Fixes& fixes) override { intake.received(fixes), diary.received(fixes); }
  void changed(receivers::Condition now, const std::string& line) override { diary.changed(now, line); }
  Loop loop;
  Intake intake{loop, nullptr, {}};
  test::Diary diary;
};

using AUnit = test::WholeSdk;

TEST_F(AUnit, GoesOnAfterItsReceiverWasSilentForAnHour) {
  Taken taken;
  const test::Line line(home.path() / "ttyUSB0");
  startBackend();
  Tarvo::setDeliveryOptions({.confirmed = true});
  Tarvo tarvo = registered();
  taken.intake.open();
  platform::LocationService::shared().setSource(receivers::openNmea(line.path, {}, taken));
  std::size_t fixes = 0;
  const auto give = [&] {
    const test::Drive drive(std::llround(platform::secondsSince1970(clock->now())) - 30);
    ASSERT_TRUE(line.send(drive.text(20, 30)) && taken.diary.waitForFixes(fixes += 10));
    waitUntilIdle();
  };

  give();
  const auto last = clock->now();
  clock->advance(Seconds(3600));
  give();

  const auto health = tarvo.health();
  EXPECT_EQ(health.gaps, (std::vector<Health::Gap>{{last, last + Seconds(3600), GapCause::receiverSilent}}));
  settle();
  EXPECT_GE(health.positions.stored, 4);
  expectEachIndexOnce(health.positions.stored);
  platform::LocationService::shared().setSource(nullptr);
}

}  // namespace
}  // namespace tarvo::unit
