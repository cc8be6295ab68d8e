#include <gtest/gtest.h>

#include "platform/foundation/Text.h"
#include "store/LedgerText.h"

namespace tarvo {
namespace {

using platform::concat;
using enum GapCause;

std::string told(const Gaps::List& gaps) {
  std::string text;
  for (const auto& [since, until, cause] : gaps)
    text += concat(platform::secondsSince1970(since), "-", until ? platform::secondsSince1970(*until) : -1.0, " ",
                   nameOf(cause), " ");
  return text;
}

TEST(Gaps, AreSilencesOverFiveMinutesOnBothClocksCutWhereTheirCauseChanges) {
  const struct {
    double wall, monotonic;
    char event;  ///< 's'tored, 'o'bstacle, 'a'sked
    std::optional<GapCause> obstacle;
    std::uint64_t filtered, refused;
    const char* told;
  } steps[] = {
      {1000, 0, 's', {}, 0, 0, ""},
      {1300, 300, 's', {}, 0, 0, ""},
      {1601, 601, 'a', {}, 0, 1, "1300--1 refused_fixes "},
      {1602, 602, 's', {}, 1, 1, "1300-1602 standing_still "},
      // The clock is set forward, and back; the silence itself is short.
      {9000, 610, 's', {}, 1, 1, ""},
      {2000, 620, 's', {}, 1, 1, ""},
      {1000, 4000, 'a', {}, 1, 1, ""},  // long, but the positions show no hole
      {1000, 4000, 's', {}, 1, 1, ""},
      {1200, 4200, 'o', stopped, 1, 1, ""},  // takes over the short time before
      {1500, 4500, 'o', background, 1, 1, "1000-1500 stopped "},
      {1500, 4500, 'o', background, 1, 1, ""},
      {1900, 4900, 'o', {}, 2, 2, "1500-1900 background "},
      {2300, 5300, 's', {}, 2, 2, "1900-2300 receiver_silent "},
  };
  Gaps gaps({platform::dateSince1970(900), platform::Seconds(-100), {}});
  for (const auto& [wall, monotonic, event, obstacle, filtered, refused, expected] : steps) {
    const Gaps::Moment now{platform::dateSince1970(wall),
                           platform::Seconds(monotonic),
                           {.notFinite = refused, .filteredByDistance = filtered}};
    const std::string before = told(gaps.ended());
    if (event == 's') gaps.didStore(obstacle, now);
    if (event == 'o') gaps.obstacleIs(obstacle, now);
    const auto open = event == 'a' ? gaps.open(now) : std::nullopt;
    EXPECT_EQ(told(gaps.ended()).substr(before.size()) + (open ? told({*open}) : ""), expected) << wall;
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
  for (std::size_t cut = 0; cut < text.size(); ++cut) EXPECT_FALSE(LedgerText::read(text.substr(0, cut))) << cut;
  const std::pair<const char*, const char*> damages[] = {
      {"rejected", "mine"}, {"background", "b"}, {"[0,1065]", "[-1,1065]"}, {"[0,1065]", "[1065,0]"},
      {"[0,1065]", "{}"},   {"38.5", "true"},    {"\"written\"", "\"w\""}};
  for (const auto& [part, other] : damages) {
    std::string damaged = text;
    EXPECT_FALSE(LedgerText::read(damaged.replace(damaged.find(part), std::string(part).size(), other))) << other;
  }
}

}  // namespace
}  // namespace tarvo
