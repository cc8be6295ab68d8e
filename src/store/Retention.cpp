#include "store/Retention.h"

#include <algorithm>
#include <string>
#include <utility>

#include <tarvo/platform/Clock.h>

#include "log/Log.h"
#include "settings/Settings.h"
#include "store/Ledger.h"
#include "store/Locations.h"
#include "store/ObjectStore.h"

namespace tarvo {

using platform::NSPredicate;
using platform::Seconds;

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
  if (!isDue(limits)) return;
  auto& context = store_.managedObjectContext();
  // Rows whose objects are in use stay.
  const std::string entity(Locations::kEntity);
  auto newest = context.fetch({.entity = entity, .sortDescriptors = {{"locationTimestamp", false}}, .fetchLimit = 1});
  auto last = context.fetch({.entity = entity, .sortDescriptors = {{"index", false}}, .fetchLimit = 1});
  if (!newest || !last) return;
  if (limits.positionAge) {
    const auto oldest = platform::Clock::current()->now() - std::max(*limits.positionAge, Seconds(0));
    remove({.predicates = {{"eventTimestamp", NSPredicate::Operator::atMost, oldest}},
            .sortDescriptors = {{"eventTimestamp", true}}},
           kMostAtOnce);
  }
  if (limits.storeBytes) keepStoreSmall(*limits.storeBytes);
}

void Retention::keepStoreSmall(std::uint64_t bound) {
  auto& context = store_.managedObjectContext();
  auto bytes = context.storeBytes();
  auto rows = context.count({.entity = std::string(Locations::kEntity)});
  if (!bytes || !rows || *bytes <= bound) return;
  const double excess = static_cast<double>(*bytes - bound) / static_cast<double>(*bytes);
  const double needed = excess * static_cast<double>(*rows) + 1;
  remove({.sortDescriptors = {{"index", true}}},
         static_cast<std::size_t>(std::min(needed, static_cast<double>(kMostAtOnce))));
}

void Retention::remove(platform::NSFetchRequest request, std::size_t most) {
  request.entity = Locations::kEntity;
  request.fetchLimit = kMostLookedAt;
  const std::vector<NSPredicate> acknowledged = {{"unsent", NSPredicate::Operator::equal, false},
                                                 {"sentWithoutACK", NSPredicate::Operator::equal, false}};
  auto removal = store_.managedObjectContext().removeRows(request, acknowledged, most);
  if (!removal) {
    Log::error("Unresolved error ", platform::errorAndUserInfo(removal.error()));
    return;
  }
  if (removal->rows == 0) return;
  isMoreLeft_ = isMoreLeft_ || removal->rows == most;
  const std::int64_t upTo = removal->highest.value_or(0);
  ledger_.didRemove(static_cast<std::int64_t>(removal->rows), upTo);
  Log::debug("Locations:remove [loc] ", removal->rows, " to:", upTo, " mainThread:", mainThread());
}

}  // namespace tarvo
