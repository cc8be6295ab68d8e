#include "platform/foundation/DateFormatter.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

constexpr const char* kBackendPattern = "YYYY-MM-dd'T'HH:mm:ss.SSSZ";

TEST(DateFormatter, FormatsTheWeekYearAndCutsFractions) {
  struct Case {
    const char* pattern;
    const char* zone;
    double seconds;
    const char* expected;
  };
  const Case cases[] = {
      {"YYYY-MM-dd", "UTC", 1735398000, "2024-12-28"},  // Saturday: the last day of that week year
      {"YYYY-MM-dd", "UTC", 1735484400, "2025-12-29"},
      {"YYYY-MM-dd", "UTC", 1735516800, "2025-12-30"},
      {"YYYY-MM-dd", "UTC", 1735693200, "2025-01-01"},
      {"YYYY-MM-dd", "UTC", 1609459200, "2021-01-01"},
      {"yyyy-MM-dd", "UTC", 1735516800, "2024-12-30"},
      {kBackendPattern, "UTC", 1735601400, "2025-12-30T23:30:00.000+0000"},
      {kBackendPattern, "Europe/Paris", 1735601400, "2025-12-31T00:30:00.000+0100"},
      {kBackendPattern, "Europe/Paris", 1499243730.4, "2017-07-05T10:35:30.400+0200"},
      {"YYYY-MM-dd'T'HH:mm:ss.SSS'Z'", "UTC", 1488442530.9999, "2017-03-02T08:15:30.999Z"},
      {"ss.SSS", "UTC", 1488442530.1239, "30.123"},
      {"yyyy-MM-dd HH:mm:ss.SSS", "UTC", -0.0001, "1969-12-31 23:59:59.999"},
      {"yyyy-MM-dd HH:mm:ss.SSS", "UTC", -86400.25, "1969-12-30 23:59:59.750"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(DateFormatter(c.pattern, c.zone).string(dateSince1970(c.seconds)), c.expected) << c.pattern;
  DateFormatter moved("HH:mm", "UTC");
  EXPECT_EQ(moved.string(dateSince1970(0)), "00:00");
  moved.setTimeZone("Europe/Paris");
  EXPECT_EQ(moved.string(dateSince1970(0)), "01:00");
}

TEST(DateFormatter, ParsesTheWrittenYearAndNothingElseThanThePattern) {
  struct Case {
    const char* pattern;
    const char* text;
    std::optional<double> seconds;
  };
  const Case cases[] = {
      {kBackendPattern, "2017-03-02T08:15:30.123+0000", 1488442530.123},
      {kBackendPattern, "2017-03-02T08:15:30.123+0100", 1488438930.123},
      {kBackendPattern, "2017-03-02T08:15:30.123Z", 1488442530.123},
      {kBackendPattern, "2017-03-02T08:15:30.123+00:00", 1488442530.123},
      {kBackendPattern, "  2017-03-02T08:15:30.3+0000 ", 1488442530.3},
      {kBackendPattern, "2017-03-02T08:15:30.345678+0000", 1488442530.345},
      {kBackendPattern, "2024-12-30T00:00:00.000+0000", 1735516800},
      {kBackendPattern, "2021-01-01T00:00:00.000+0000", 1609459200},
      {kBackendPattern, "1969-12-31T23:59:59.750+0000", -0.25},
      {"HH:mm", "08:15", 946714500 - 3600},  // the first of January 2000, at +0100
      {"YYYY-MM-dd", "2024-12-31", 1735603200 - 3600},
      {kBackendPattern, "", std::nullopt},
      {kBackendPattern, "2017-03-02T08:15:30.123+0000 x", std::nullopt},
      {kBackendPattern, "2017-03-02T08:15:30+0000", std::nullopt},
      {kBackendPattern, "2017-03-02T08:15:30.123", std::nullopt},
      {kBackendPattern, "2017-03-02 08:15:30.123+0000", std::nullopt},
      {kBackendPattern, "2017-13-02T08:15:30.123+0000", std::nullopt},
      {kBackendPattern, "2017-02-30T08:15:30.123+0000", std::nullopt},
      {kBackendPattern, "2017-03-02T25:15:30.123+0000", std::nullopt},
      {"YYYY-MM-dd", "2024-6-5", std::nullopt},
      {"YYYY-MM-dd", "\xff\xfe", std::nullopt},
  };
  for (const Case& c : cases) {
    const auto parsed = DateFormatter(c.pattern, "Europe/Paris").date(c.text);
    EXPECT_EQ(parsed.has_value(), c.seconds.has_value()) << c.text;
    if (parsed && c.seconds) {
      EXPECT_DOUBLE_EQ(secondsSince1970(*parsed), *c.seconds) << c.text;
    }
  }
}

TEST(DateFormatter, GivesBackEveryMillisecondItHasParsed) {
  const DateFormatter formatter(kBackendPattern, "UTC");
  for (int millisecond = 0; millisecond < 1000; ++millisecond) {
    const std::string digits = std::to_string(1000 + millisecond).substr(1);
    for (const char* second : {"2017-03-02T08:15:30.", "2038-06-02T08:15:30.", "1961-03-02T08:15:30."}) {
      const std::string text = second + digits + "+0000";
      ASSERT_EQ(formatter.string(formatter.date(text).value()), text);
    }
  }
}

TEST(DateFormatter, KeepsItsLocaleAndFollowsTheDevicesZone) {
  ::setenv("LC_ALL", "ar_EG.UTF-8", 1);
  ::setenv("TZ", "Asia/Tokyo", 1);
  DateFormatter formatter("EEE d MMM YYYY HH:mm Z");
  EXPECT_EQ(formatter.string(dateSince1970(1488442530)), "Thu 2 Mar 2017 17:15 +0900");
  formatter.setTimeZone("UTC");
  EXPECT_EQ(formatter.string(dateSince1970(1488442530)), "Thu 2 Mar 2017 08:15 +0000");
}

TEST(LocalizedTime, IsTheShortDateAndFullTimeOfTheDevice) {
  ::setenv("LC_ALL", "en_US.UTF-8", 1);
  ::setenv("TZ", "UTC", 1);
  EXPECT_EQ(concat(LocalizedTime{dateSince1970(1238589622)}), "4/1/09, 12:40:22 PM Coordinated Universal Time");
}

TEST(LocalizedTime, IsTheSameWhateverTheMinuteBefore) {
  // Monrovia was 44 and a half minutes from UTC until 1972, so its minutes begin with our 30th second.
  ::setenv("LC_ALL", "en_US.UTF-8", 1);
  ::setenv("TZ", "Africa/Monrovia", 1);
  const DateFormatter whole("M/d/yy, h:mm:ss a zzzz");
  for (const double time : {0.0, 29.0, 30.0, 59.5, -0.5, -61.0, 1718445600.0, 1718445609.999, 1718445659.0,
                            1718445661.0, 1718445600.0, std::nan("")}) {
    const Date date = dateSince1970(time);
    EXPECT_EQ(concat(LocalizedTime{date}), whole.string(date)) << time;
  }
}

}  // namespace
}  // namespace tarvo::platform
