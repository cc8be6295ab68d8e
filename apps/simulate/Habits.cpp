#include "Habits.h"

#include <algorithm>
#include <cmath>

namespace tarvo::simulation {
namespace {

constexpr std::int64_t kMinute = 60'000, kHour = 60 * kMinute, kDay = 24 * kHour;

/// Streams of random numbers, see Random.
constexpr std::uint64_t kPlaces = 101, kPerson = 102, kDays = 103, kOuting = 104;

enum : std::size_t { kHome, kWork, kLunch, kShop, kGym, kFriend, kLake };

/// Most people walk ways below 1.5 km, and cycle some below 5 km (national travel surveys of Germany and the
/// Netherlands).
Mode usualMode(double metres) { return metres < 1500 ? Mode::Walk : metres < 5000 ? Mode::Bike : Mode::Drive; }

std::int64_t minutes(double count) { return std::llround(count * 60) * 1000; }

/// A place in a ring about another, apart from those that are there.
Coordinate findPlace(const std::vector<Place>& places, std::size_t about, double nearest, double farthest,
                     Random& random) {
  for (;;) {
    const double azimuth = random.between(0, 360), metres = random.between(nearest, farthest);
    const Coordinate at = placeAt(places[about].at, azimuth, metres);
    const auto tooNear = [&](const Place& other) { return metresBetween(other.at, at) < 350; };
    if (std::none_of(places.begin(), places.end(), tooNear)) return at;
    farthest *= 1.05;
  }
}

class Life {
 public:
  Life(Plan& plan, std::uint64_t seed) : plan_(plan), seed_(seed), person_({seed, kPerson}) {
    // Work begins between 7:30 and 9:00 and lasts eight to nine hours with its break.
    leaves_ = std::round(person_.between(85, 105)) * 5;
    works_ = std::round(person_.between(96, 108)) * 5;
    gymDay_ = person_.chance(0.5) ? 1 : 2;  // Tuesday and Thursday, or Wednesday and Friday
    lakeDay_ = person_.chance(0.5) ? 5 : 6;
  }

  void day(std::int64_t midnight, int number) {
    midnight_ = midnight;
    Random random({seed_, kDays, static_cast<std::uint64_t>(number)});
    const auto weekday = static_cast<int>(((midnight + 12 * kHour) / kDay + 3) % 7);  // 1 January 1970 was a Thursday
    if (weekday < 5)
      workingDay(weekday, random);
    else
      freeDay(weekday, random);
  }

 private:
  /// Whoever left home with a vehicle comes home with it; lunch is a walk.
  void go(std::size_t to, double minuteOfDay, double stay) {
    const std::size_t from = plan_.legs.empty() ? kHome : plan_.legs.back().to;
    const Mode usual = usualMode(metresBetween(plan_.places[from].at, plan_.places[to].at));
    if (from == kHome) vehicle_ = usual;
    const Mode mode = from == kLunch || to == kLunch ? Mode::Walk : std::min(vehicle_, usual);
    plan_.legs.push_back({to, mode, midnight_ + minutes(minuteOfDay), minutes(stay)});
  }

  /// There at about a time of the day, and home after a while.
  void visit(std::size_t place, double minuteOfDay, double shortest, double longest, Random& random) {
    const double leave = random.around(minuteOfDay, place == kFriend ? 15 : 25, 2);
    go(place, leave, 15);
    go(kHome, 0, random.between(shortest, longest));
  }

  /// Departures of commuters vary by some 10 minutes from day to day, in the evening by more.
  void workingDay(int weekday, Random& random) {
    if (random.chance(0.05)) return;  // at home: ill, or with the work
    go(kWork, random.around(leaves_, 7, 2.5), 15);
    if (random.chance(0.5)) {
      go(kLunch, random.around(12 * 60 + 20, 8, 2), 60);
      go(kWork, 0, random.between(25, 45));
    }
    const double evening = random.around(leaves_ + works_, 12, 2.5);
    if (weekday == gymDay_ || weekday == gymDay_ + 2) {
      go(kGym, evening, 60);
      go(kHome, 0, random.between(60, 90));
    } else if (random.chance(0.35)) {
      go(kShop, evening, 60);
      go(kHome, 0, random.between(20, 40));
    } else {
      go(kHome, evening, 60);
      if (weekday == 4 && random.chance(0.5)) visit(kFriend, 20 * 60, 100, 170, random);
    }
  }

  void freeDay(int weekday, Random& random) {
    if (weekday == 5) visit(kShop, 10 * 60 + 15, 25, 50, random);
    if (weekday == lakeDay_)
      visit(kLake, 13 * 60 + 30, 120, 210, random);
    else if (random.chance(0.5))
      visit(kFriend, 15 * 60 + 30, 90, 170, random);
  }

  Plan& plan_;
  const std::uint64_t seed_;
  Random person_;
  double leaves_ = 0, works_ = 0;
  int gymDay_ = 0, lakeDay_ = 0;
  std::int64_t midnight_ = 0;
  Mode vehicle_ = Mode::Drive;
};

}  // namespace

Plan oneWay(Coordinate from, Coordinate to, Mode mode, std::int64_t start) {
  return {{{"start", from}, {"end", to}}, {{1, mode, start, 0}}, start, 0, 3 * kMinute};
}

Plan outing(Coordinate from, Coordinate to, std::uint64_t seed, std::int64_t start) {
  Random random({seed, kOuting});
  const double metres = metresBetween(from, to);
  std::vector<Place> places = {{"start", from}, {"end", to}};
  // On the way, but to one side.
  Coordinate park;
  do {
    const double azimuth = random.between(0, 360), away = metres * random.between(0.35, 0.6);
    park = placeAt(from, azimuth, away);
  } while (metresBetween(park, to) > 0.75 * metres);
  places.push_back({"car park", park});
  places.push_back({"cafe", findPlace(places, 2, 360, 480, random)});
  return {places,
          {{2, Mode::Drive, start, 0},
           {3, Mode::Walk, start, minutes(1.5)},
           {2, Mode::Walk, start, minutes(random.between(34, 37))},
           {1, Mode::Drive, start, minutes(1.5)}},
          start,
          0,
          minutes(10)};
}

Plan life(Coordinate home, Coordinate work, std::uint64_t seed, std::int64_t start, int days) {
  const std::int64_t zone = std::llround(home.lon / 15) * kHour;
  const std::int64_t local = start + zone, midnight = local - ((local % kDay) + kDay) % kDay - zone;
  Plan plan;
  plan.places = {{"home", home}, {"work", work}};
  Random random({seed, kPlaces});
  const struct {
    const char* name;
    std::size_t about;
    double nearest, farthest;
  } rings[] = {{"lunch", kWork, 400, 650},
               {"shop", kHome, 700, 2500},
               {"gym", kHome, 1800, 4500},
               {"friend", kHome, 2500, 6500},
               {"lake", kHome, 9000, 18000}};
  for (const auto& ring : rings)
    plan.places.push_back({ring.name, findPlace(plan.places, ring.about, ring.nearest, ring.farthest, random)});
  plan.start = midnight;
  plan.end = midnight + days * kDay;
  plan.stay = minutes(15);
  Life person(plan, seed);
  for (int day = 0; day < days; ++day) person.day(midnight + day * kDay, day);
  return plan;
}

}  // namespace tarvo::simulation
