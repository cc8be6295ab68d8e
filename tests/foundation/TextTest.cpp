#include "platform/foundation/Text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace tarvo::platform {
namespace {

TEST(Text, PrintsDoublesFixedWithTheFewestDigitsThatReadBack) {
  const std::pair<double, const char*> cases[] = {{0.0001, "0.0001"},
                                                  {100000, "100000"},
                                                  {2.3522, "2.3522"},
                                                  {-0.5, "-0.5"},
                                                  {0.1 + 0.2, "0.30000000000000004"},
                                                  {1e21, "1000000000000000000000"},
                                                  {-1, "-1"},
                                                  {0, "0"},
                                                  {0.0078125, "0.0078125"},
                                                  {0.007, "0.007"},
                                                  {9.999999999999998, "9.999999999999998"},
                                                  {-179.99999999999997, "-179.99999999999997"},
                                                  {1048577.00048828125, "1048577.0004882812"},
                                                  {1048577.00146484375, "1048577.0014648438"},
                                                  {48.137154, "48.137154"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(concat(value), text);
  EXPECT_EQ(std::strtod(concat(std::numeric_limits<double>::denorm_min()).c_str(), nullptr),
            std::numeric_limits<double>::denorm_min());
  EXPECT_EQ(std::strtod(concat(-std::numeric_limits<double>::max()).c_str(), nullptr),
            -std::numeric_limits<double>::max());
}

TEST(Text, PrintsDatesInUtcWithTheFractionCutDownwards) {
  const std::pair<double, const char*> cases[] = {{1735601400.999, "2024-12-30 23:30:00 +0000"},
                                                  {-0.001, "1969-12-31 23:59:59 +0000"},
                                                  {1488442530.123, "2017-03-02 08:15:30 +0000"},
                                                  {-1e300, "-1199-02-15 14:13:20 +0000"},
                                                  {1e300, "9892-03-08 12:26:40 +0000"}};
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

}  // namespace
}  // namespace tarvo::platform
