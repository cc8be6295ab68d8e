#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include <tarvo/platform/GpxReplay.h>

#include "location/Delivery.h"
#include "platform/location/Geodesy.h"

namespace tarvo::platform {
namespace {

using PlayedTrace = LocationTest;

/// Reads a file that holds `text`.
std::optional<GpxTrace> readText(const std::string& text) {
  std::string error;
  test::TempDir folder;
  const auto file = folder.path() / "trace.gpx";
  std::ofstream(file, std::ios::binary) << text;
  return GpxTrace::read(file, error);
}

TEST(GpxTrace, TakesWhatTheFileTellsAndDerivesTheRest) {
  const auto trace = readText(
      "<?xml version='1.0'?><g:gpx xmlns:g='http://www.topografix.com/GPX/1/1' version='1.1'><wpt lat='1' lon='1'/>"
      "<g:trk><g:trkseg>"
      "<g:trkpt lat='0' lon='0'><g:ele>-0704.5</g:ele><g:time>2019-10-22T14:36:00.000Z</g:time></g:trkpt>"
      "<g:trkpt lat='0' lon='0.0010000000000000000000000000000000000000000000000'>"
      "<g:time> 2019-10-22T16:36:10+02:00 </g:time><g:hdop>1.6</g:hdop></g:trkpt></g:trkseg><g:trkseg>"
      "<g:trkpt lat='0' lon='0.001'><g:time>2019-10-22T14:36:20Z</g:time></g:trkpt>"
      "<g:trkpt lat='0.001' lon='0.001'><g:time>2019-10-22T14:36:19.5Z</g:time></g:trkpt>"
      "<g:trkpt lat='0.002' lon='0.001'><g:time>2019-10-22T14:36:21Z</g:time>"
      "<speed>3.5</speed><course>270.5</course></g:trkpt>"
      "<g:trkpt lat='0.001' lon='0.001'><g:time>2019-10-22T14:36:31Z</g:time><g:extensions><x:TrackPoint>"
      "<x:speed>4.5</x:speed></x:TrackPoint></g:extensions></g:trkpt>"
      "<g:trkpt lat='x' lon='0'><g:time>2019-10-22T14:36:31Z</g:time></g:trkpt><g:trkpt lat='90.1' lon='0'/>"
      "<g:trkpt lat='0' lon='0'/><g:trkpt lat='0' lon='0'><g:time>2019-13-22T14:36:31Z</g:time></g:trkpt>"
      "<g:trkpt lon='0'/></g:trkseg></g:trk></g:gpx>");
  ASSERT_TRUE(trace);
  EXPECT_EQ(trace->outOfRange, 3u);
  EXPECT_EQ(trace->untimed, 2u);
  EXPECT_EQ(trace->backwards, 1u);
  std::string text;
  for (const CLLocation& fix : trace->fixes)
    text += concat(secondsSince1970(fix.timestamp) - 1571754960, " ", fix.altitude, " ", fix.verticalAccuracy, " ",
                   fix.horizontalAccuracy, " ", Fixed{fix.speed, 4}, " ", Fixed{fix.course, 6}, "\n");
  EXPECT_EQ(text,
            "0 -704.5 10 10 -1.0000 -1.000000\n10 0 -1 8 11.1319 90.000000\n20 0 -1 10 0.0000 -1.000000\n"
            "19.5 0 -1 10 -1.0000 -1.000000\n21 0 -1 10 3.5000 270.500000\n31 0 -1 10 4.5000 180.000000\n");
}

TEST(GpxTrace, TakesRoutesOrWaypointsOnlyWithoutATrack) {
  const std::string time = "<time>2020-01-01T00:00:00Z</time>", way = "<wpt lat='3' lon='3'>" + time + "</wpt>",
                    route = "<rte><rtept lat='2' lon='2'>" + time + "</rtept></rte>",
                    trip = "<trk><trkseg><trkpt lat='1' lon='1'>" + time + "</trkpt></trkseg></trk>";
  for (const auto& [points, latitude] : {std::pair(way + route + trip, 1), {way + route, 2}, {way, 3}}) {
    const auto trace = readText("<gpx>" + points + "</gpx>");
    ASSERT_TRUE(trace && trace->fixes.size() == 1) << points;
    EXPECT_EQ(trace->fixes[0].coordinate.latitude, latitude);
  }
}

TEST_F(PlayedTrace, PlaysTheSameEachTimeAndNeverMovesTheClockBack) {
  manager.startUpdatingLocation();
  GpxTrace trace;
  for (int i = 0; i < 4; ++i)
    trace.fixes.emplace_back(fixAt(i)).timestamp = dateSince1970(i == 2 ? 1'000'005 : 1'000'100 + i);
  std::vector<double> ages;
  delegate.inside = [&] { ages.push_back(secondsSince1970(Clock::current()->now()) - 1'000'000); };
  GpxReplay replay(trace, clock);
  EXPECT_EQ(replay.play(std::nullopt, {}, dateSince1970(1'000'100.5)), 1u);
  EXPECT_EQ(clock->now(), dateSince1970(1'000'100.5));
  EXPECT_EQ(replay.play(std::nullopt, {}), 4u);
  EXPECT_EQ(ages, (std::vector<double>{100, 101, 101, 103}));
  const Diary first = delegate.read();
  EXPECT_EQ(first, (Diary{"fixes 0", "fixes 1", "fixes 2", "fixes 3"}));
  std::thread([&] { EXPECT_EQ(GpxReplay(trace, clock).play(1e6, {}), 4u); }).join();
  EXPECT_EQ(delegate.read(), first);
  EXPECT_EQ(GpxReplay(trace, clock).play(std::nullopt, [](std::size_t number) { return number < 2; }), 2u);
}

}  // namespace
}  // namespace tarvo::platform
