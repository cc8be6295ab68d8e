#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>
#include <string_view>

#include "Simulation.h"
#include "Text.h"

namespace tarvo::simulation {
namespace {

constexpr double kKnotsOfMetresPerSecond = 3600.0 / 1852;

/// Whole microdegrees, the six decimals of a GPX, are whole hundred-thousandths of a minute.
std::string angle(double degrees, int figures, const char* sides) {
  const std::int64_t micro = std::llround(std::abs(degrees) * 1e6);
  char text[32];
  std::snprintf(text, sizeof text, "%0*d%02d.%05d,%c", figures, static_cast<int>(micro / 1'000'000),
                static_cast<int>(micro % 1'000'000 * 6 / 100'000), static_cast<int>(micro % 1'000'000 * 6 % 100'000),
                sides[degrees < 0 && micro > 0 ? 1 : 0]);
  return text;
}

void writeSentence(std::ostream& out, const std::string& text) {
  unsigned sum = 0;
  for (const char c : text) sum ^= static_cast<unsigned char>(c);
  constexpr std::string_view kFigures = "0123456789ABCDEF";
  out << '$' << text << '*' << kFigures[sum >> 4] << kFigures[sum & 15] << "\r\n";
}

}  // namespace

void writeNmea(std::ostream& out, const Simulation& simulation) {
  out << "# Invented: nobody made these trips, and their roads do not exist. Made by: " << commandOf(simulation.request)
      << " --format nmea\r\n";
  for (const Fix& fix : simulation.fixes) {
    const std::string when = moment(fix.ms);  // 2024-05-14T07:30:00Z
    const std::int64_t hundredths = fix.ms / 10 % 100;
    const std::string time = when.substr(11, 2) + when.substr(14, 2) + when.substr(17, 2) + "." + twoDigits(hundredths);
    const std::string place = angle(fix.at.lat, 2, "NS") + "," + angle(fix.at.lon, 3, "EW");
    const std::string error = fixed(fix.accuracy / std::numbers::sqrt2, 1);  // in each direction
    writeSentence(out, "GPRMC," + time + ",A," + place + "," + fixed(fix.speed * kKnotsOfMetresPerSecond, 2) + "," +
                           fixed(turned(fix.course), 1) + "," + when.substr(8, 2) + when.substr(5, 2) +
                           when.substr(2, 2) + ",,,A");
    writeSentence(out, "GPGGA," + time + "," + place + ",1,08," + fixed(fix.accuracy / 5, 1) + "," +
                           fixed(fix.altitude, 1) + ",M,,M,,");
    writeSentence(out, "GPGST," + time + ",,,,," + error + "," + error + "," + error);
  }
}

}  // namespace tarvo::simulation
