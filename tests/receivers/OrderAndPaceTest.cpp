#include <gtest/gtest.h>

#include "receivers/FixOrder.h"
#include "receivers/Pace.h"

namespace tarvo::receivers {
namespace {

using platform::CLLocation;
using platform::dateSince1970;
using platform::Seconds;

std::vector<CLLocation> fixesAt(const std::vector<double>& times) {
  std::vector<CLLocation> fixes;
  for (const double time : times) fixes.push_back({.horizontalAccuracy = 5, .timestamp = dateSince1970(time)});
  return fixes;
}

TEST(FixOrder, LetsOnlyLaterFixesThroughUntilAClockIsSetBackForGood) {
  struct Row {
    std::string name;
    std::vector<double> taken, passed;
    FixOrder::Statistics counted;
  };
  using Counted = FixOrder::Statistics;
  const Row rows[] = {{"ascending", {1000, 1000.1, 1001}, {1000, 1000.1, 1001}, Counted{3, 3}},
                      {"doubles", {1000, 1000, 1001, 1001, 1001}, {1000, 1001}, Counted{5, 2, 3}},
                      {"a step back", {1005, 1004, 1006}, {1005, 1006}, Counted{3, 2, 0, 1}},
                      {"too early", {0, 999.9, 1000, 5}, {1000}, Counted{4, 1, 0, 0, 3}},
                      {"nine behind",
                       {2000, 1001, 1002, 1003, 1004, 1005, 1006, 1007, 1008, 1009, 2001},
                       {2000, 2001},
                       Counted{11, 2, 0, 9}},
                      {"ten behind, and a double",
                       {2000, 1001, 1002, 1003, 1004, 1004, 1005, 1006, 1007, 1008, 1009, 1010, 1011},
                       {2000, 1010, 1011},
                       Counted{13, 3, 1, 9, 0, 1}},
                      {"ten behind that do not ascend",
                       {2000, 1001, 1002, 1003, 1004, 1005, 1001, 1002, 1003, 1004, 1005},
                       {2000},
                       Counted{11, 1, 0, 10}},
                      {"ten behind, not in a row",
                       {2000, 1001, 1002, 1003, 1004, 1005, 2001, 1006, 1007, 1008, 1009, 1010},
                       {2000, 2001},
                       Counted{12, 2, 0, 10}}};
  for (const auto& [name, taken, passed, counted] : rows) {
    FixOrder whole(dateSince1970(1000)), single(dateSince1970(1000));
    EXPECT_EQ(whole.take(fixesAt(taken)), fixesAt(passed)) << name;
    EXPECT_EQ(whole.statistics(), counted) << name;
    for (const double time : taken) single.take(fixesAt({time}));
    EXPECT_EQ(single.statistics(), counted) << name << ", one by one";
  }
}

/// Reads once each pause for `seconds`, and gives the last pause.
double pauseAfter(Pace& pace, double& now, double seconds, CLLocation fix, std::size_t bytes = 100) {
  double pause = 0;
  for (const double end = now + seconds; now <= end; now += pause)
    pause = pace.pauseAfter({fix}, bytes, Seconds(now)).count();
  return pause;
}

TEST(Pace, IsSlowWhileNothingMovesAndInTimeForWhatWaits) {
  // 0.00018 degrees of latitude are 20 m.
  const CLLocation still{.coordinate = {48, 11}, .horizontalAccuracy = 10, .speed = 0.99};
  struct Row {
    const char* name;
    double before, lat, speed, accuracy;
    std::size_t bytes;
    double pause;
  };
  const Row rows[] = {{"not yet for half a minute", 28.5, 48, 0.99, 10, 100, 1},
                      {"for half a minute", 29.5, 48, 0.99, 10, 100, 5},
                      {"it moves", 60, 48, 1, 10, 100, 1},
                      {"farther than both explain", 60, 48.000185, -1, 10, 100, 1},
                      {"not as far", 60, 48.000175, -1, 10, 100, 5},
                      {"as far, and less accurate", 60, 48.00027, -1, 25, 100, 5},
                      {"much waits", 60, 48, 0, 10, 4000, 2.5}};
  for (const auto& row : rows) {
    Pace pace(4000);
    double now = 1e6;
    pauseAfter(pace, now, row.before, still);
    CLLocation fix = still;
    fix.coordinate.latitude = row.lat;
    fix.speed = row.speed;
    fix.horizontalAccuracy = row.accuracy;
    EXPECT_DOUBLE_EQ(pace.pauseAfter({fix}, row.bytes, Seconds(now)).count(), row.pause) << row.name;
  }
}

}  // namespace
}  // namespace tarvo::receivers
