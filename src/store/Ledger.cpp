#include "store/Ledger.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/LocationService.h>

#include "log/Log.h"
#include "store/Locations.h"

namespace tarvo {

using platform::Date;
using platform::MutexLock;

namespace {

Gaps::Moment momentNow() {
  const auto clock = platform::Clock::current();
  return {clock->now(), clock->monotonic(), platform::LocationService::shared().statistics()};
}

/// A text of the same length is written over the one before, but for the pages of it that have not changed.
Date wholeSeconds(Date date) { return platform::dateSince1970(std::floor(platform::secondsSince1970(date))); }

}  // namespace

Ledger::Ledger() : start_(momentNow()), gaps_(start_) {}

void Ledger::didTry(Date now) {
  MutexLock lock(mutex_);
  known_.lastTry = now;
  hasTried_ = true;
}

void Ledger::didAcknowledge(Health::Range positions, bool answered, Date now) {
  MutexLock lock(mutex_);
  if (!answered) {  // a failure as well, which `didFail` tells
    add(known_.acknowledgedWithoutAnswer, positions);
    isDue_ = true;
    return;
  }
  known_.lastAcknowledgement = now;
  known_.lastError = DeliveryError::none;
  known_.triesSince = 0;
  nextTry_.reset();
  hasTried_ = true;
}

void Ledger::didFail(DeliveryError error, std::optional<Date> nextTry) {
  MutexLock lock(mutex_);
  known_.lastError = error;
  ++known_.triesSince;
  nextTry_ = nextTry;
  hasTried_ = true;
}

void Ledger::didRemove(std::int64_t positions, std::int64_t upTo) {
  MutexLock lock(mutex_);
  known_.removed += positions;
  known_.removedUpTo = std::max(known_.removedUpTo.value_or(upTo), upTo);
  isDue_ = true;
}

void Ledger::didStore(std::optional<GapCause> obstacle) {
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  collects_ = true;
  if (gaps_.didStore(obstacle, now)) isDue_ = true;
}

void Ledger::obstacleIs(std::optional<GapCause> obstacle) {
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  collects_ = true;
  gaps_.obstacleIs(obstacle, now);
}

void Ledger::forget() {
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  start_ = now;
  gaps_ = Gaps(now);
  known_ = {};
  nextTry_.reset();
  seen_.clear();
  written_.reset();
  removedInFile_ = 0;
  isDue_ = false;
}

void Ledger::read(Context& context) {
  {
    MutexLock lock(mutex_);
    if (isRead_) return;
  }
  if (!context.coordinator().hasStore()) return;
  auto text = context.metadata(LedgerText::kName);
  if (!text) return;
  LedgerText inFile;
  const Gaps::Moment now = momentNow();
  std::vector<Date> seen;
  for (const Date until : {now.wall, platform::distantFuture()})
    if (const auto latest = Locations::latestStorage(context, until)) seen.push_back(*latest);
  if (const std::optional<std::string> found = *text) {
    if (auto readable = LedgerText::read(*found)) {
      inFile = std::move(*readable);
      seen.push_back(inFile.written);
      if (!inFile.gaps.empty() && !inFile.gaps.back().until)
        inFile.gaps.back().until = Locations::firstStorageAfter(context, inFile.written);
    } else if (!std::exchange(isUnreadableTold_, true)) {
      Log::error("Ledger: the entry of the store's metadata cannot be read and begins anew");
    }
  }
  MutexLock lock(mutex_);
  for (const Health::Range range : known_.acknowledgedWithoutAnswer) add(inFile.acknowledgedWithoutAnswer, range);
  inFile.removed += known_.removed - std::exchange(removedInFile_, inFile.removed);
  inFile.removedUpTo = std::max(inFile.removedUpTo, known_.removedUpTo);
  if (hasTried_) {
    inFile.lastTry = known_.lastTry;
    inFile.lastAcknowledgement = known_.lastAcknowledgement;
    inFile.lastError = known_.lastError;
    inFile.triesSince = known_.triesSince;
  }
  known_ = std::move(inFile);
  seen_ = std::move(seen);
  isRead_ = context.coordinator().writes();
  if (isRead_ && absence(now)) isDue_ = true;
}

void Ledger::willSave(Context& context) {
  read(context);
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  if (isRead_ && isDue_) put(context, kept(now));
}

bool Ledger::refresh(Context& context) {
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  if (!isRead_ || !collects_) return false;
  LedgerText text = kept(now);
  if (written_ && now.wall - written_->written <= Gaps::kLongest) {
    LedgerText before = *written_;
    before.written = text.written;
    if (text == before) return false;
  }
  put(context, std::move(text));
  return true;
}

void Ledger::put(Context& context, LedgerText text) {
  context.setMetadata(LedgerText::kName, text.text());
  written_ = std::move(text);
  isDue_ = false;
}

LedgerText Ledger::kept(const Gaps::Moment& now) const {
  LedgerText text = known_;
  text.written = wholeSeconds(now.wall);
  for (auto* date : {&text.lastTry, &text.lastAcknowledgement})
    if (*date) *date = wholeSeconds(**date);
  text.gaps = allGaps(now);
  return text;
}

std::optional<Date> Ledger::earlierEnd(const Gaps::Moment& now) const {
  std::optional<Date> end;
  for (const Date seen : seen_)
    if (seen <= now.wallOf(start_) && (!end || seen > *end)) end = seen;
  return end;
}

std::optional<Health::Gap> Ledger::absence(const Gaps::Moment& now) const {
  const auto end = earlierEnd(now);
  const Date start = now.wallOf(start_);
  if (!end || start - *end <= Gaps::kLongest) return std::nullopt;
  return Health::Gap{*end, start, GapCause::notRunning};
}

Gaps::List Ledger::allGaps(const Gaps::Moment& now) const {
  Gaps::List all = known_.gaps;
  if (!all.empty() && !all.back().until)
    all.back().until = std::max(all.back().since, earlierEnd(now).value_or(start_.wall));
  if (const auto absent = absence(now)) append(all, *absent);
  for (const Health::Gap& gap : gaps_.ended()) append(all, gap);
  if (const auto open = gaps_.open(now)) append(all, *open);
  return all;
}

std::optional<std::vector<Health::Range>> Ledger::givenUp(Context& context) {
  read(context);
  MutexLock lock(mutex_);
  if (!isRead_) return std::nullopt;
  return known_.acknowledgedWithoutAnswer;
}

Health::Positions Ledger::positions() const {
  MutexLock lock(mutex_);
  Health::Positions positions;
  positions.acknowledgedWithoutAnswer = known_.acknowledgedWithoutAnswer;
  positions.removed = known_.removed;
  positions.removedUpTo = known_.removedUpTo;
  return positions;
}

Health::Delivery Ledger::delivery() const {
  const Date now = platform::Clock::current()->now();
  MutexLock lock(mutex_);
  Health::Delivery delivery{known_.lastTry, known_.lastAcknowledgement, known_.lastError, known_.triesSince, nextTry_};
  if (nextTry_ && *nextTry_ <= now) delivery.nextTry.reset();
  return delivery;
}

Gaps::List Ledger::gaps(std::optional<GapCause> obstacle) {
  const Gaps::Moment now = momentNow();
  MutexLock lock(mutex_);
  if (!collects_) return known_.gaps;
  gaps_.obstacleIs(obstacle, now);
  return allGaps(now);
}

}  // namespace tarvo
