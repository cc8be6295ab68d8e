#include "Motion.h"

#include <algorithm>
#include <cmath>

namespace tarvo::simulation {
namespace {

/// How people move; m/s and m/s2.
struct Manner {
  double top;                        ///< on a free way
  double slowest, fastest;           ///< accelerating
  double softest, hardest;           ///< braking
  double red;                        ///< how often a light stops them
  double shortestWait, longestWait;  ///< seconds
};

Manner mannerOf(Mode mode) {
  switch (mode) {
    // Drivers accelerate with 1 to 2 m/s2 and brake with 1.5 to 2.5 m/s2 where nothing forces them (Bokare and Maurya
    // 2017, "Acceleration-deceleration behaviour of various vehicle types"; 3.4 m/s2 is the comfortable limit that road
    // design assumes). Signals run in cycles of 60 to 90 s, half of which is red.
    case Mode::Drive:
      return {38, 1.1, 1.9, 1.5, 2.3, 0.5, 4, 50};
    // Cyclists in towns go 14 to 22 km/h (Jensen et al. 2010, rental bicycles in Lyon: 15 km/h with stops).
    case Mode::Bike:
      return {5.2, 0.5, 0.9, 0.8, 1.4, 0.45, 4, 40};
    // People walk at 1.2 to 1.5 m/s (Bohannon 1997, "Comfortable and maximum walking speed").
    case Mode::Walk:
      break;
  }
  return {1.38, 0.5, 0.9, 0.6, 1.0, 0.35, 3, 30};
}

/// Speeds along a road at evenly spaced places, and the seconds that are spent standing at some of them.
struct Course {
  double step = 0;
  std::vector<double> speeds, waits;
};

/// What the road and the mood allow, before anybody has to accelerate. The mood wanders over some 150 m.
Course wishes(const Road& road, const Manner& manner, Random& random) {
  const auto cells = static_cast<std::size_t>(std::ceil(road.length() / 2));
  Course course{road.length() / static_cast<double>(cells), std::vector<double>(cells + 1),
                std::vector<double>(cells + 1)};
  constexpr double kMoodMetres = 150, kMoodDeviation = 0.06;
  const double kept = 1 - course.step / kMoodMetres, fresh = std::sqrt(1 - kept * kept);
  const double style = random.around(1, 0.07, 2);
  double mood = random.normal();
  std::size_t near = 0;
  for (std::size_t i = 0; i <= cells; ++i) {
    const double along = course.step * static_cast<double>(i);
    while (near + 2 < road.points.size() && road.points[near + 1].along <= along) ++near;
    mood = kept * mood + fresh * random.normal();
    const double limit = std::min(road.points[near].limit, manner.top);
    course.speeds[i] = limit * style * (1 + kMoodDeviation * std::clamp(mood, -3.0, 3.0));
  }
  return course;
}

void stopAtLights(const Road& road, const Manner& manner, Random& random, Course& course) {
  for (const double light : road.lights) {
    const bool red = random.chance(manner.red);
    const double wait = std::round(random.between(manner.shortestWait, manner.longestWait));
    const auto cell = static_cast<std::size_t>(light / course.step);
    if (!red || cell + 10 > course.speeds.size()) continue;
    course.speeds[cell] = 0;
    course.waits[cell] = wait;
  }
  course.speeds.front() = course.speeds.back() = 0;
}

/// Squares of speeds grow and fall by twice the acceleration times the way.
void bound(Course& course, double accelerating, double braking) {
  std::vector<double>& speeds = course.speeds;
  const auto reachable = [&](double from, double by) { return std::sqrt(from * from + 2 * by * course.step); };
  for (std::size_t i = speeds.size() - 1; i-- > 0;) speeds[i] = std::min(speeds[i], reachable(speeds[i + 1], braking));
  for (std::size_t i = 1; i < speeds.size(); ++i)
    speeds[i] = std::min(speeds[i], reachable(speeds[i - 1], accelerating));
}

}  // namespace

Travel travel(const Road& road, Mode mode, double rate, Random random) {
  const Manner manner = mannerOf(mode);
  const double accelerating = random.between(manner.slowest, manner.fastest);
  const double braking = random.between(manner.softest, manner.hardest);
  Course course = wishes(road, manner, random);
  stopAtLights(road, manner, random, course);
  bound(course, accelerating, braking);

  Travel travel;
  double seconds = 0;
  const auto next = [&] { return static_cast<double>(travel.moments.size()) / rate; };
  const auto add = [&](double along, double speed) {
    travel.moments.push_back({std::llround(next() * 1000), along, speed});
  };
  for (std::size_t i = 0; i + 1 < course.speeds.size(); ++i) {
    const double along = course.step * static_cast<double>(i);
    for (seconds += course.waits[i]; next() < seconds;) add(along, 0);
    const double speed = course.speeds[i], after = course.speeds[i + 1];
    const double span = 2 * course.step / (speed + after), change = (after - speed) / span;
    while (next() < seconds + span) {
      const double into = next() - seconds;
      add(along + speed * into + change * into * into / 2, speed + change * into);
    }
    seconds += span;
  }
  travel.ms = static_cast<std::int64_t>(std::ceil(seconds)) * 1000;
  return travel;
}

}  // namespace tarvo::simulation
