#include "store/Retention.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <tarvo/platform/Clock.h>

#include "log/Log.h"
#include "log/LogFolder.h"
#include "settings/Settings.h"
#include "store/Attributes.h"
#include "store/Ledger.h"
#include "store/Locations.h"
#include "store/ObjectStore.h"

namespace tarvo {

using platform::NSPredicate;
using platform::Seconds;
using Operator = NSPredicate::Operator;

namespace {

/// A thousand rows take some ten milliseconds, for which intake and uploads wait.
constexpr std::size_t kMostAtOnce = 1000;
/// Rows that are looked at for them; those that must stay are few among the oldest.
constexpr std::size_t kMostLookedAt = 4 * kMostAtOnce;
constexpr int kSavesBetweenLooks = 1000;
constexpr Seconds kBetweenLooks{600};

}  // namespace

bool Retention::isDue(const StorageLimits& limits) {
  if (!limits.positionAge && !limits.storeBytes) return false;
  const Seconds now = platform::Clock::current()->monotonic();
  const bool isDue = isMoreLeft_ || ++saves_ >= kSavesBetweenLooks || limits != limits_ || !lookedAt_ ||
                     now - *lookedAt_ >= kBetweenLooks;
  // While anything is unsaved nothing is removed; the look is made up for after the next save.
  if (!isDue || store_.managedObjectContext().hasChanges()) return false;
  limits_ = limits;
  lookedAt_ = now;
  saves_ = 0;
  isMoreLeft_ = false;
  return true;
}

void Retention::didSave() {
  const StorageLimits limits = Settings::shared().storageLimits.get();
  if (limits.logAge || limits.logBytes) lookAtLogs();
  if (!isDue(limits)) return;
  auto& context = store_.managedObjectContext();
  // Rows whose objects are in use stay.
  const std::string entity(Locations::kEntity);
  auto newest = context.fetch({.entity = entity, .sortDescriptors = {{"locationTimestamp", false}}, .fetchLimit = 1});
  auto last = context.fetch({.entity = entity, .sortDescriptors = {{"index", false}}, .fetchLimit = 1});
  if (!newest || !last) return;
  if (limits.positionAge) {
    const auto oldest = platform::Clock::current()->now() - std::max(*limits.positionAge, Seconds(0));
    if (const auto end = lastStoredUntil(oldest))
      remove({{"eventTimestamp", Operator::atMost, oldest}}, *end, kMostAtOnce);
  }
  const auto highest = last->empty() ? std::nullopt : last->front()->integer(attribute::locations::index);
  if (limits.storeBytes && highest) keepStoreSmall(*limits.storeBytes, *highest);
}

/// The log looks at its folder when it writes, which it may have stopped to do.
void Retention::lookAtLogs() {
  const Seconds now = platform::Clock::current()->monotonic();
  if (logsLookedAt_ && now - *logsLookedAt_ < kBetweenLooks) return;
  if (Log::serialQueue().async([] { LogFolder::shared().admits({}, 0); })) logsLookedAt_ = now;
}

void Retention::keepStoreSmall(std::uint64_t bound, std::int64_t last) {
  auto& context = store_.managedObjectContext();
  auto bytes = context.storeBytes();
  auto rows = context.count({.entity = std::string(Locations::kEntity)});
  if (!bytes || !rows || *bytes <= bound) return;
  const double excess = static_cast<double>(*bytes - bound) / static_cast<double>(*bytes);
  const double needed = excess * static_cast<double>(*rows) + 1;
  remove({}, last, static_cast<std::size_t>(std::min(needed, static_cast<double>(kMostAtOnce))));
}

/// Numbers rise with the time of storage, but where the clock was set.
std::optional<std::int64_t> Retention::lastStoredUntil(platform::Date moment) {
  auto found = store_.managedObjectContext().fetch({.entity = std::string(Locations::kEntity),
                                                    .predicates = {{"eventTimestamp", Operator::atMost, moment}},
                                                    .sortDescriptors = {{"eventTimestamp", false}},
                                                    .fetchLimit = 1});
  if (!found || found->empty()) return std::nullopt;
  return found->front()->integer(attribute::locations::index);
}

void Retention::remove(const std::vector<NSPredicate>& old, std::int64_t last, std::size_t most) {
  auto kept = ledger_.givenUp(store_.managedObjectContext());
  if (!kept) return;
  kept->push_back({last + 1, last + 1});
  std::size_t left = most;
  std::int64_t next = 0;
  for (const Health::Range& range : *kept) {
    const std::int64_t end = std::min(range.first - 1, last);
    if (left > 0 && next <= end) left -= removeAmong({next, end}, old, left);
    next = std::min(range.last, last) + 1;
  }
  isMoreLeft_ = isMoreLeft_ || left == 0;
}

std::size_t Retention::removeAmong(platform::NSManagedObjectContext::Numbers numbers,
                                   const std::vector<NSPredicate>& old, std::size_t most) {
  const platform::NSFetchRequest request{.entity = std::string(Locations::kEntity),
                                         .predicates = old,
                                         .sortDescriptors = {{"index", true}},
                                         .fetchLimit = kMostLookedAt};
  const std::vector<NSPredicate> acknowledged = {{"unsent", Operator::equal, false},
                                                 {"sentWithoutACK", Operator::equal, false}};
  auto removal = store_.managedObjectContext().removeRows(request, numbers, acknowledged, most);
  if (!removal) Log::error("Unresolved error ", platform::errorAndUserInfo(removal.error()));
  if (!removal || removal->rows == 0) return 0;
  const std::int64_t upTo = removal->highest.value_or(0);
  ledger_.didRemove(static_cast<std::int64_t>(removal->rows), upTo);
  Log::debug("Locations:remove [loc] ", removal->rows, " to:", upTo, " mainThread:", mainThread());
  return removal->rows;
}

}  // namespace tarvo
