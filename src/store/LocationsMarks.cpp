#include <utility>

#include "log/Log.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/Text.h"
#include "settings/Settings.h"
#include "store/Attributes.h"
#include "store/Locations.h"
#include "store/RecordReading.h"

namespace tarvo {

namespace at = attribute::locations;
using platform::errorAndUserInfo;
using platform::NSManagedObjectID;
using Operator = platform::NSPredicate::Operator;

namespace {

struct NextBatch {
  platform::Mutex mutex;
  std::function<void()> start GUARDED_BY(mutex);

  static NextBatch& shared() {
    static auto* next = new NextBatch;
    return *next;
  }
};

void startNextBatch() {
  std::function<void()> start;
  {
    NextBatch& next = NextBatch::shared();
    platform::MutexLock lock(next.mutex);
    start = next.start;
  }
  if (start) start();
}

}  // namespace

void Locations::setNextBatchHook(std::function<void()> startNextBatch) {
  NextBatch& next = NextBatch::shared();
  platform::MutexLock lock(next.mutex);
  next.start = std::move(startNextBatch);
}

void Locations::markLocationAsSentWithID(const NSManagedObjectID& id, Context& context) {
  auto object = context.existingObject(id);
  if (!object) {
    Log::error("Locations:markLocationAsSentWithID Unresolved error ", errorAndUserInfo(object.error()));
    return;
  }
  const auto location = std::dynamic_pointer_cast<Locations>(*object);
  if (!location) return;
  Log::debug("Locations:markLocationAsSentWithID [loc] ", id, " mainThread:", mainThread());
  location->setBoolean(at::unsent, false);
}

void Locations::markLocationAsSentWithoutACKWithID(const NSManagedObjectID& id, Context& context) {
  auto object = context.existingObject(id);
  if (!object) {
    Log::error("Locations:markLocationAsSentWithoutACKWithID Unresolved error ", errorAndUserInfo(object.error()));
    return;
  }
  const auto location = std::dynamic_pointer_cast<Locations>(*object);
  if (!location) return;
  Log::debug("Locations:markLocationAsSentWithoutACKWithID [loc] ", id, " mainThread:", mainThread());
  location->setBoolean(at::sentWithoutACK, true);
}

void Locations::markLocationAsSentWithIndex(std::int64_t index, Context& context) {
  auto rows = fetchAs<Locations>(
      context, {.entity = std::string(kEntity), .predicates = {{"index", Operator::equal, platform::concat(index)}}});
  if (!rows) {
    Log::error("Locations:markLocationAsSentWithIndex [loc] error:", errorAndUserInfo(rows.error()));
    return;
  }
  if (rows->size() > 1) {
    Log::debug("Locations:markLocationAsSentWithIndex [loc] ", rows->size(),
               " locs with same index! mainThread:", mainThread());
    return;
  }
  if (rows->empty()) platform::fatalError(platform::concat("no position has the index ", index));
  rows->front()->setBoolean(at::unsent, false);
  rows->front()->setBoolean(at::sentWithoutACK, false);
}

void Locations::markLocationAsSentUntilIndex(std::string_view locationIndex, Context& context,
                                             std::string_view firstLoc) {
  auto rows = fetchAs<Locations>(context, {.entity = std::string(kEntity),
                                           .predicates = {{"index", Operator::atMost, std::string(locationIndex)},
                                                          {"index", Operator::atLeast, std::string(firstLoc)}}});
  if (!rows) {
    Log::error("Locations:markLocationAsSentUntilIndex [loc] error:", errorAndUserInfo(rows.error()));
    return;
  }
  // Intended: a range that names no record leaves the channel held until it is stale.
  if (rows->empty()) return;
  Log::debug("Locations:markLocationAsSentUntilIndex [loc] from:", rows->front()->index(),
             " to:", rows->back()->index(), " mainThread:", mainThread());
  for (const auto& location : *rows) {
    location->setBoolean(at::unsent, false);
    location->setBoolean(at::sentWithoutACK, false);
  }
  Settings::shared().uploadChannel.release();
  // Here, before the caller saves, and not posted elsewhere: one acknowledged batch is what sends the next.
  startNextBatch();
}

}  // namespace tarvo
