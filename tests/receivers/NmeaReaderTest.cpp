#include "receivers/NmeaReader.h"

#include <gtest/gtest.h>

namespace tarvo::receivers {
namespace {

using platform::dateSince1970;

std::string with(const std::string& text, const std::string& end = "\r\n") {
  unsigned sum = 0;
  for (const char c : text) sum ^= static_cast<unsigned char>(c);
  char figures[3];
  std::snprintf(figures, sizeof figures, "%02X", sum);
  return "$" + text + "*" + figures + end;
}
const std::string kPlace = "4807.038,N,01131.000,E,", kSouth = "2712.6404,S,07030.3000,W,";
std::string rmc(const std::string& time, const std::string& end = "\r\n") {
  return with("GPRMC," + time + ",A," + kPlace + "010.0,084.4,230324,003.1,W,A", end);
}
std::string gga(const std::string& time, const std::string& quality = "1") {
  return with("GPGGA," + time + "," + kPlace + quality + ",08,0.9,545.4,M,46.9,M,,");
}
std::string cut(const std::string& text, std::size_t at) { return text.substr(0, at) + "\r\n"; }

/// Each fix as "time lat lon accuracy altitude/its accuracy speed course", the time of day from 2024-03-23.
std::string read(const std::string& bytes, std::size_t part) {
  NmeaReader reader;
  std::vector<platform::CLLocation> fixes;
  for (std::size_t at = 0; at < bytes.size(); at += part) reader.take(std::string_view(bytes).substr(at, part), fixes);
  reader.finish(fixes);
  std::string all;
  for (const auto& fix : fixes) {
    char line[200];
    std::snprintf(line, sizeof line, "%.1f %.5f %.5f %.1f %.1f/%.0f %.2f %.1f;",
                  (fix.timestamp - dateSince1970(1711152000)).count(), fix.coordinate.latitude,
                  fix.coordinate.longitude, fix.horizontalAccuracy, fix.altitude, fix.verticalAccuracy, fix.speed,
                  fix.course);
    all += line;
  }
  return all;
}
const std::string kJoined = "10.0 48.11730 11.51667 4.5 545.4/10 5.14 84.4;";
const std::string kBare = " 48.11730 11.51667 10.0 0.0/-1 5.14 84.4;",
                  kSlow = " 48.11730 11.51667 4.5 545.4/10 -1.00 -1.0;";

struct Row {
  const char* name;
  std::string bytes, fixes;
};
const Row kRows[] = {
    {"both of a moment", rmc("000010.00") + gga("000010.00"), kJoined},
    {"the other way round, with a fraction less", gga("000010") + rmc("000010.00"), kJoined},
    {"garbage about them", "\xff$$GP" + rmc("000010") + "!AIVDM,1*00\r\n\x01$GPX\x02" + gga("000010") + "$", kJoined},
    {"no line ends", rmc("000010", "") + with("GPVTG,084.4,T", "") + rmc("000011", ""),
     "10.0" + kBare + "11.0" + kBare},
    {"a wrong checksum",
     rmc("000010", "") + "\r\n" + with("GPRMC,000011", "") + "$GPRMC,000012,A," + kPlace + "1,2,230324*00\r\n",
     "10.0" + kBare},
    {"no checksums", "$GPRMC,000010,A," + kPlace + "010.0,084.4,230324\n", "10.0" + kBare},
    {"cut off after checksums have come", rmc("000010") + "$GPRMC,000011,A," + kPlace + "010.0,084.4,230324\n",
     "10.0" + kBare},
    {"cut off in a longitude", "$GPRMC,000010,A,4807.038,N,0113\n$GPRMC,000010,A,4807.038,N,011,E,1,2,230324\n", ""},
    {"no sentence is so long", "$GPRMC,000010,A," + kPlace + "1,2,230324," + std::string(256, ',') + "\n", ""},
    {"any talker, and a maker's own",
     with("GNRMC,000010,A," + kSouth + ",,230324,,,D") + with("PXGGA,000010," + kPlace + "1,08,0.9,1,M,,M,,"),
     "10.0 -27.21067 -70.50500 10.0 0.0/-1 -1.00 -1.0;"},
    {"void", with("GPRMC,000010,V," + kPlace + "0,0,230324,,,N") + gga("000010"), ""},
    {"valid, of mode N", with("GPRMC,000010,A," + kPlace + "0,0,230324,,,N"), ""},
    {"of no quality", rmc("000010") + gga("000010", "0"), ""},
    {"a day without RMC", gga("000010"), ""},
    {"RMC each second time", rmc("000010") + gga("000010") + gga("000011") + gga("000012") + rmc("000012"),
     kJoined + "11.0" + kSlow + "12.0 48.11730 11.51667 4.5 545.4/10 5.14 84.4;"},
    {"midnight before the next RMC", rmc("235959.9") + gga("235959.9") + gga("000000.0"),
     "86399.9 48.11730 11.51667 4.5 545.4/10 5.14 84.4;86400.0" + kSlow},
    {"midnight behind the next RMC", rmc("000000.0") + gga("235959.9"), "0.0" + kBare + "-0.1" + kSlow},
    {"ten a second", rmc("000010.1") + rmc("000010.2") + rmc("000010.30"),
     "10.1" + kBare + "10.2" + kBare + "10.3" + kBare},
    {"GST, from the second moment on",
     rmc("000010") + gga("000010") + with("GPGST,000010,,,,,3,4,5") + rmc("000011") + gga("000011") +
         with("GPGST,000011,,,,,3,4,5"),
     kJoined + "11.0 48.11730 11.51667 5.0 545.4/5 5.14 84.4;"},
    {"no time, no figures, no such time",
     with("GPRMC,,A," + kPlace + "1,2,230324") + with("GPRMC,00x010,A," + kPlace + "1,2,230324") +
         with("GPRMC,246010,A," + kPlace + "1,2,230324"),
     ""},
    {"no such day, no such place",
     with("GPRMC,000010,A," + kPlace + "1,2,300224") + with("GPRMC,000011,A,9007.0,N,01131.0,E,1,2,230324") +
         with("GPRMC,000012,A,4860.0,N,01131.0,E,1,2,230324"),
     ""},
    {"the last century", with("GPRMC,000010,A," + kPlace + ",,010180"),
     "-1395619190.0 48.11730 11.51667 10.0 0.0/-1 -1.00 -1.0;"},
    {"nan and the like",
     with("GPRMC,000010,A," + kPlace + "nan,inf,230324") + with("GPGGA,000010," + kPlace + "1,8,-1,1e3,M"),
     "10.0 48.11730 11.51667 10.0 0.0/-1 -1.00 -1.0;"},
};

TEST(NmeaReader, ReadsWhateverALineBrings) {
  for (const Row& row : kRows) {
    EXPECT_EQ(read(row.bytes, row.bytes.size()), row.fixes) << row.name;
    EXPECT_EQ(read(row.bytes, 1), row.fixes) << row.name << ", byte by byte";
  }
  const std::string sentence = rmc("000010");
  for (std::size_t at = 1; at + 3 < sentence.size(); ++at)
    EXPECT_EQ(read(rmc("000009") + cut(sentence, at) + rmc("000011"), 7), "9.0" + kBare + "11.0" + kBare) << at;
}

TEST(NmeaReader, PutsTheDatesOfOldReceiversRight) {
  constexpr double kCycle = 1024 * 7 * 86400.0, kBuilt = 1.7e9;
  const struct {
    const char* name;
    double told, now, meant;
  } rows[] = {{"right", 1.8e9, 1.8e9, 1.8e9},
              {"one cycle behind", 1.8e9 - kCycle, 1.8e9 + 100, 1.8e9},
              {"two, and a clock that is weeks late", 1.8e9 - 2 * kCycle, 1.8e9 - 5e6, 1.8e9},
              {"a clock that is wrong by less", 1.71e9, 1.9e9, 1.71e9},
              {"ahead", 1.8e9 + kCycle, 1.8e9, 1.8e9 + kCycle},
              {"no clock", 1.8e9, 100, 1.8e9},
              {"no clock, behind", 1.8e9 - kCycle, 100, 1.8e9},
              {"no clock, two behind", 1.8e9 - 2 * kCycle, 100, 1.8e9}};
  for (const auto& row : rows)
    EXPECT_EQ(withoutRollover(dateSince1970(row.told), dateSince1970(row.now), dateSince1970(kBuilt)),
              dateSince1970(row.meant))
        << row.name;
}

}  // namespace
}  // namespace tarvo::receivers
