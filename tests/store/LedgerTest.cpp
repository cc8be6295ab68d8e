#include <gtest/gtest.h>

#include <tuple>

#include "platform/foundation/Text.h"
#include "store/LedgerText.h"

namespace tarvo {
namespace {

using platform::concat;
using enum GapCause;

std::string told(const Gaps::List& gaps) {
  std::string text;
  for (const auto& [since, until, cause] : gaps)
    text += concat(platform::secondsSince1970(since), "-", platform::secondsSince1970(*until), " ", nameOf(cause), " ");
  return text;
}

TEST(Gaps, AreSilencesOverFiveMinutesWhateverTheClockShowsCutWhereTheirCauseChanges) {
  using Obstacle = std::optional<GapCause>;
  // Wall and monotonic time, whether a position is stored, what keeps others away, and the gap that ends.
  const std::tuple<double, double, bool, Obstacle, const char*> steps[] = {
      {1000, 0, true, {}, ""},
      {1300, 300, true, {}, ""},
      {9000, 310, true, {}, ""},  // the clock was set forward, then back
      {1000, 400, true, {}, ""},
      {900, 4000, true, {}, "-2700-900 receiver_silent "},  // long, and the clock was set back
      {1100, 4200, false, stopped, ""},                     // takes over the short time before
      {1500, 4600, false, background, "900-1500 stopped "},
      {1900, 5000, false, {}, "1500-1900 background "},
      {2300, 5400, true, {}, "1900-2300 receiver_silent "}};
  Gaps gaps({platform::dateSince1970(900), platform::Seconds(-100), {}});
  for (const auto& [wall, monotonic, stored, obstacle, expected] : steps) {
    const Gaps::Moment now{platform::dateSince1970(wall), platform::Seconds(monotonic), {}};
    const std::string before = told(gaps.ended());
    stored ? void(gaps.didStore(obstacle, now)) : gaps.obstacleIs(obstacle, now);
    EXPECT_EQ(told(gaps.ended()).substr(before.size()), expected) << wall;
  }
}

TEST(LedgerText, IsBoundedReadsItselfAndRefusesAnythingElse) {
  LedgerText ledger{.removed = 7, .removedUpTo = 9, .lastTry = platform::dateSince1970(3.25), .triesSince = 2};
  ledger.lastError = DeliveryError::rejected;
  for (const std::int64_t first : {400, 0, 2, 6, 4, 1, 401}) add(ledger.acknowledgedWithoutAnswer, {first, first});
  EXPECT_EQ(ledger.acknowledgedWithoutAnswer, (std::vector<Health::Range>{{0, 2}, {4, 4}, {6, 6}, {400, 401}}));
  for (int i = 0; i < 70; ++i) {
    add(ledger.acknowledgedWithoutAnswer, {1000 + 10 * i, 1005 + 10 * i});
    append(ledger.gaps, {platform::dateSince1970(i), platform::dateSince1970(i + 0.5), GapCause(i % 7)});
  }
  ledger.gaps.back().until.reset();
  EXPECT_EQ(ledger.acknowledgedWithoutAnswer.size(), 64u);
  EXPECT_EQ(ledger.acknowledgedWithoutAnswer.front(), (Health::Range{0, 1065})) << "the oldest have become one";
  EXPECT_EQ(told({ledger.gaps.front()}), "38-38.5 background ");
  const std::string text = ledger.text();
  EXPECT_EQ(LedgerText::read(text), ledger);
  EXPECT_LT(text.size(), 3'000u);
  EXPECT_FALSE(LedgerText::read(std::string(text).replace(text.find("[0,1065]"), 8, "[1065,0]")));
}

}  // namespace
}  // namespace tarvo
