#include "platform/foundation/Text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <tuple>

#include "platform/foundation/DateFormatter.h"

namespace tarvo::platform {
namespace {

TEST(Text, PrintsDoublesFixedWithTheFewestDigitsThatReadBack) {
  for (const char* text :
       {"0.0001", "100000", "2.3522", "-0.5", "-1", "0", "0.30000000000000004", "1000000000000000000000", "0.0078125",
        "0.007", "9.999999999999998", "-179.99999999999997", "48.137154"})
    EXPECT_EQ(concat(std::strtod(text, nullptr)), text);
  EXPECT_EQ(concat(1048577.00048828125, " ", 1048577.00146484375), "1048577.0004882812 1048577.0014648438");
  for (const double value : {std::numeric_limits<double>::denorm_min(), std::numeric_limits<double>::lowest()})
    EXPECT_EQ(std::strtod(concat(value).c_str(), nullptr), value);
}

TEST(Text, PrintsDatesInUtcWithTheFractionCutDownwards) {
  const std::pair<double, const char*> cases[] = {
      {1735601400.999, "2024-12-30 23:30:00 +0000"}, {-0.001, "1969-12-31 23:59:59 +0000"},
      {1488442530.123, "2017-03-02 08:15:30 +0000"}, {-1e300, "-1199-02-15 14:13:20 +0000"},
      {1e300, "9892-03-08 12:26:40 +0000"},
  };
  for (const auto& [seconds, text] : cases) EXPECT_EQ(concat(dateSince1970(seconds)), text);
  EXPECT_EQ(concat(distantPast(), " ", distantFuture()), "0001-01-01 00:00:00 +0000 4001-01-01 00:00:00 +0000");
}

TEST(Text, PrintsNestedValuesAndErrors) {
  const Dictionary dictionary{{"b", Array{1, "x", nullptr, true}}, {"a", Dictionary{}}, {"c", 0.5}};
  EXPECT_EQ(concat(dictionary), R"(["a": [:], "b": [1, "x", <null>, true], "c": 0.5])");
  EXPECT_EQ(concat(Value("bare"), std::optional<int>(), std::optional<int>(7)), "barenil7");
  EXPECT_EQ(printedOptional("lost"), "Optional(\"lost\")");
  const Error error{"D", 7, "", {{"k", "v"}}};
  EXPECT_EQ(errorAndUserInfo(error), "Error Domain=D Code=7 \"(null)\" UserInfo={k=v}, [\"k\": \"v\"]");
}

TEST(Timestamp, IsReadWithFractionsAndZones) {
  const std::pair<const char*, std::optional<double>> cases[] = {
      {"1970-01-01T00:00:01.25Z", 1.25},    {"1969-12-31T23:59:59.5Z", -0.5}, {"1970-01-01T02:00:00+0200", 0},
      {"1969-12-31T18:30:00-05:30", 0},     {"1970-01-01 00:00:07", 7},       {"1970-01-01T00:00:00+2", {}},
      {"2024-02-29T00:00:00Z", 1709164800}, {"2023-02-29T00:00:00Z", {}},     {"1970-01-01T24:00:00Z", {}},
  };
  for (const auto& [text, seconds] : cases) {
    const auto time = parseTimestamp(text);
    EXPECT_EQ(time ? std::optional(secondsSince1970(*time)) : std::nullopt, seconds) << text;
  }
}

constexpr const char* kBackendPattern = "YYYY-MM-dd'T'HH:mm:ss.SSSZ";

TEST(DateFormatter, FormatsTheWeekYearAndCutsFractions) {
  const std::tuple<const char*, const char*, double, const char*> cases[] = {
      {"YYYY-MM-dd", "UTC", 1735398000, "2024-12-28"},  // Saturday: the last day of that week year
      {"yyyy-MM-dd", "UTC", 1735516800, "2024-12-30"},
      {kBackendPattern, "Europe/Paris", 1735601400, "2025-12-31T00:30:00.000+0100"},
      {"YYYY-MM-dd'T'HH:mm:ss.SSS'Z'", "UTC", 1488442530.9999, "2017-03-02T08:15:30.999Z"},
  };
  for (const auto& [pattern, zone, seconds, expected] : cases)
    EXPECT_EQ(DateFormatter(pattern, zone).string(dateSince1970(seconds)), expected) << pattern;
}

TEST(DateFormatter, ParsesTheWrittenYearAndNothingElseThanThePattern) {
  const std::tuple<const char*, const char*, std::optional<double>> cases[] = {
      {kBackendPattern, "2017-03-02T08:15:30.123+0100", 1488438930.123},
      {kBackendPattern, "  2017-03-02T08:15:30.3+0000 ", 1488442530.3},
      {kBackendPattern, "2017-03-02T08:15:30.345678+0000", 1488442530.345},
      {kBackendPattern, "2024-12-30T00:00:00.000+0000", 1735516800},
      {"YYYY-MM-dd", "2024-6-5", std::nullopt},
  };
  const auto parsed = [](const char* pattern, const char* text) {
    const auto date = DateFormatter(pattern, "Europe/Paris").date(text);
    return date ? std::optional(secondsSince1970(*date)) : std::nullopt;
  };
  for (const auto& [pattern, text, seconds] : cases) EXPECT_EQ(parsed(pattern, text), seconds) << text;
  for (const char* text : {"", "\xff\xfe", "2017-03-02T08:15:30.123+0000 x", "2017-03-02T08:15:30.123",
                           "2017-03-02 08:15:30.123+0000", "2017-02-30T08:15:30.123+0000"})
    EXPECT_EQ(parsed(kBackendPattern, text), std::nullopt) << text;
}

TEST(DateFormatter, GivesBackEveryMillisecondItHasParsed) {
  const DateFormatter formatter(kBackendPattern, "UTC");
  for (int millisecond = 0; millisecond < 1000; ++millisecond)
    for (const char* second : {"2017-03-02T08:15:30.", "2038-06-02T08:15:30.", "1961-03-02T08:15:30."}) {
      const std::string text = second + std::to_string(1000 + millisecond).substr(1) + "+0000";
      ASSERT_EQ(formatter.string(formatter.date(text).value()), text);
    }
}

TEST(LocalizedTime, IsTheShortDateAndFullTimeOfTheDeviceWhateverTheMinuteBefore) {
  // Monrovia was 44 and a half minutes from UTC until 1972, so its minutes begin with our 30th second.
  ::setenv("LC_ALL", "en_US.UTF-8", 1);
  ::setenv("TZ", "Africa/Monrovia", 1);
  EXPECT_EQ(concat(LocalizedTime{dateSince1970(1238589622)}), "4/1/09, 12:40:22 PM Greenwich Mean Time");
  const DateFormatter whole("M/d/yy, h:mm:ss a zzzz");
  for (const double time : {0.0, 29.0, 30.0, 59.5, -0.5, -61.0, 1718445600.0, 1718445609.999, 1718445659.0,
                            1718445661.0, 1718445600.0, std::nan("")}) {
    const Date date = dateSince1970(time);
    EXPECT_EQ(concat(LocalizedTime{date}), whole.string(date)) << time;
  }
}

}  // namespace
}  // namespace tarvo::platform
