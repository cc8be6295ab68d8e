// Makes the demo trip: an hour of walking and driving through streets that do not exist, as GPX 1.0 on the standard
// output or into the file that is named. All motion is computed with integers and a generator that the language
// defines to the last bit, so that every machine writes the same bytes.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <random>
#include <span>
#include <string>

namespace {

using Integer = std::int64_t;

enum class Mode { walk, drive };

/// A straight way to a corner, and what happens there.
struct Leg {
  Mode mode;
  Integer eastMetres, northMetres;  ///< of its end
  Integer cruiseKmh;
  Integer endKmh;        ///< through the corner; 0: to a stand
  Integer dwellSeconds;  ///< at its end
};

constexpr Leg legs[] = {
    // From the door to the car.
    {Mode::walk, 60, 10, 5, 4, 0},
    {Mode::walk, 60, 120, 5, 0, 45},
    // Through the town, with traffic lights.
    {Mode::drive, 480, 120, 40, 15, 0},
    {Mode::drive, 480, 480, 45, 0, 28},
    {Mode::drive, 480, 720, 45, 15, 0},
    {Mode::drive, 900, 720, 48, 0, 41},
    {Mode::drive, 1200, 720, 48, 15, 0},
    {Mode::drive, 1200, 1500, 50, 18, 0},
    {Mode::drive, 2100, 1500, 52, 45, 0},
    // The country road.
    {Mode::drive, 3400, 2100, 88, 80, 0},
    {Mode::drive, 5200, 2500, 96, 80, 0},
    {Mode::drive, 7600, 2300, 92, 45, 0},
    // The next village; a walk to the shop and back.
    {Mode::drive, 8000, 2300, 45, 0, 22},
    {Mode::drive, 8150, 2300, 40, 15, 0},
    {Mode::drive, 8150, 2900, 48, 15, 0},
    {Mode::drive, 8350, 2900, 30, 0, 40},
    {Mode::walk, 8380, 2960, 5, 4, 0},
    {Mode::walk, 8470, 2960, 5, 0, 260},
    {Mode::walk, 8380, 2960, 4, 4, 0},
    {Mode::walk, 8350, 2900, 4, 0, 50},
    // To the lake.
    {Mode::drive, 8350, 3600, 48, 0, 33},
    {Mode::drive, 9500, 3600, 68, 40, 0},
    {Mode::drive, 10400, 4700, 72, 20, 0},
    {Mode::drive, 10460, 4720, 20, 0, 40},
    // Around it on foot, with two rests.
    {Mode::walk, 10520, 4900, 5, 5, 0},
    {Mode::walk, 10700, 5050, 5, 5, 0},
    {Mode::walk, 10930, 5080, 5, 0, 95},
    {Mode::walk, 11110, 4960, 5, 5, 0},
    {Mode::walk, 11150, 4760, 5, 5, 0},
    {Mode::walk, 11040, 4590, 5, 0, 60},
    {Mode::walk, 10830, 4530, 5, 5, 0},
    {Mode::walk, 10620, 4600, 5, 5, 0},
    {Mode::walk, 10460, 4720, 5, 0, 55},
    // Back as far as the village.
    {Mode::drive, 10400, 4700, 20, 20, 0},
    {Mode::drive, 9500, 3600, 74, 40, 0},
    {Mode::drive, 8350, 3600, 66, 15, 0},
    {Mode::drive, 8350, 3300, 45, 15, 0},
    {Mode::drive, 7900, 3300, 45, 0, 60},
};

Integer squareRoot(Integer value) {
  Integer root = 0;
  for (Integer bit = Integer{1} << 30; bit > 0; bit >>= 1)
    if ((root + bit) * (root + bit) <= value) root += bit;
  return root;
}

class Trip {
 public:
  Trip() { text_ = head; }

  std::string make() {
    for (const Leg& leg : legs) run(leg);
    text_ += "</trkseg></trk>\n</gpx>\n";
    return text_;
  }

 private:
  static constexpr const char* head =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<gpx version=\"1.0\" creator=\"maketrip\" xmlns=\"http://www.topografix.com/GPX/1/0\">\n"
      "<desc>A simulated trip: nobody made it, and its streets do not exist.</desc>\n"
      "<trk><name>Demo trip</name><trkseg>\n";
  static constexpr Integer stepsPerSecond = 10;
  static constexpr Integer startSecondOfDay = (7 * 60 + 30) * 60;

  Integer random(Integer low, Integer high) { return low + static_cast<Integer>(generator_() % (high - low + 1)); }

  void run(const Leg& leg) {
    const Integer fromEast = eastMm_;
    const Integer fromNorth = northMm_;
    const Integer east = leg.eastMetres * 1000 - fromEast;
    const Integer north = leg.northMetres * 1000 - fromNorth;
    const Integer length = squareRoot(east * east + north * north);
    const Integer gain = leg.mode == Mode::drive ? 1700 : 600;
    const Integer brake = leg.mode == Mode::drive ? 1900 : 700;
    const Integer endSpeed = mmPerSecond(leg.endKmh);
    courseTenths_ = courseTenths(east, north);

    Integer done = 0;
    while (done < length) {
      if (step_ % (5 * stepsPerSecond) == 0) mood_ = random(-8, 6);
      const Integer cruise = mmPerSecond(leg.cruiseKmh) * (100 + mood_) / 100;
      const Integer safe = squareRoot(endSpeed * endSpeed + 2 * brake * (length - done));
      const Integer wanted = std::min(cruise, safe);
      speed_ = wanted > speed_ ? std::min(wanted, speed_ + gain / stepsPerSecond)
                               : std::max(wanted, speed_ - 2 * brake / stepsPerSecond);
      done = std::min(length, done + std::max<Integer>(speed_ / stepsPerSecond, 10));
      eastMm_ = fromEast + east * done / length;
      northMm_ = fromNorth + north * done / length;
      tick(leg.mode, false);
    }
    eastMm_ = leg.eastMetres * 1000;
    northMm_ = leg.northMetres * 1000;
    if (leg.dwellSeconds == 0) return;
    speed_ = 0;
    for (Integer step = 0; step < leg.dwellSeconds * stepsPerSecond; ++step) tick(leg.mode, true);
  }

  /// One step of time; a fix when its second has come.
  void tick(Mode mode, bool standing) {
    ++step_;
    if (step_ < nextFix_ * stepsPerSecond) return;
    writeFix(mode, standing);
    nextFix_ += standing ? random(6, 9) : random(2, 3);
  }

  void writeFix(Mode mode, bool standing) {
    // Trees and walls: worse on foot.
    const Integer hdopTenths = mode == Mode::drive ? random(7, 11) : random(9, 19);
    const Integer spread = 30 * hdopTenths;
    // Errors of a receiver change slowly.
    eastError_ += random(-spread, spread) - eastError_ / 12;
    northError_ += random(-spread, spread) - northError_ / 12;

    const Integer speed = standing ? random(0, 12) : std::max<Integer>(0, speed_ / 10 + random(-12, 12));
    const Integer wobble = mode == Mode::drive ? 15 : 70;
    const Integer course = (courseTenths_ + (standing ? 0 : random(-wobble, wobble)) + 3600) % 3600;

    // Micro-degrees; 1 m is 8.993e-6 degrees of latitude and at 48.1 degrees 13.466e-6 of longitude.
    const Integer latitude = 48'100'000 + (northMm_ + northError_) * 8993 / 1'000'000;
    const Integer longitude = 11'500'000 + (eastMm_ + eastError_) * 13466 / 1'000'000;
    const Integer eastMetres = eastMm_ / 1000;
    const Integer hill = std::abs(eastMetres % 3000 - 1500) / 10;
    const Integer elevation = 5200 + eastMetres * 2 / 100 + hill + random(-6, 6);
    const Integer second = startSecondOfDay + nextFix_;

    std::array<char, 256> line;
    const int size = std::snprintf(
        line.data(), line.size(),
        "<trkpt lat=\"%lld.%06lld\" lon=\"%lld.%06lld\"><ele>%lld.%lld</ele>"
        "<time>2024-05-14T%02lld:%02lld:%02lldZ</time><course>%lld.%lld</course><speed>%lld.%02lld</speed>"
        "<hdop>%lld.%lld</hdop></trkpt>\n",
        part(latitude / 1'000'000), part(latitude % 1'000'000), part(longitude / 1'000'000),
        part(longitude % 1'000'000), part(elevation / 10), part(elevation % 10), part(second / 3600),
        part(second / 60 % 60), part(second % 60), part(course / 10), part(course % 10), part(speed / 100),
        part(speed % 100), part(hdopTenths / 10), part(hdopTenths % 10));
    text_.append(line.data(), static_cast<std::size_t>(size));
  }

  static long long part(Integer value) { return value; }
  static Integer mmPerSecond(Integer kmh) { return kmh * 10000 / 36; }

  static Integer courseTenths(Integer east, Integer north) {
    constexpr double tenthsPerRadian = 1800 / 3.14159265358979323846;
    const double tenths = std::atan2(static_cast<double>(east), static_cast<double>(north)) * tenthsPerRadian;
    return (static_cast<Integer>(std::lround(tenths)) + 3600) % 3600;
  }

  std::mt19937 generator_{20240514};
  std::string text_;
  Integer eastMm_ = 0, northMm_ = 0, speed_ = 0;
  Integer courseTenths_ = 0;
  Integer mood_ = 0;  ///< per cent above the usual speed
  Integer step_ = 0, nextFix_ = 0;
  Integer eastError_ = 0, northError_ = 0;
};

}  // namespace

int main(int count, char** values) {
  const std::span<char*> arguments(values, static_cast<std::size_t>(count));
  if (arguments.size() > 2 || (arguments.size() == 2 && arguments[1][0] == '-')) {
    std::cerr << "usage: maketrip [FILE]\n";
    return 2;
  }
  const std::string trip = Trip().make();
  if (arguments.size() < 2) {
    std::cout << trip << std::flush;
    return std::cout ? 0 : 1;
  }
  std::ofstream file(arguments[1], std::ios::binary);
  file << trip << std::flush;
  if (!file) {
    std::cerr << "maketrip: " << arguments[1] << " cannot be written\n";
    return 1;
  }
  return 0;
}
