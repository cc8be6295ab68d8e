#include "platform/persistence/EntityObjects.h"

#include <algorithm>
#include <atomic>
#include <iterator>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/NSManagedObjectContext.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {
namespace {

/// Objects of all contexts that have ended; tells when a registry is worth sweeping.
std::atomic<std::uint64_t> destroyedObjects{0};

constexpr std::uint64_t kLeastSweep = 1024;

}  // namespace

EntityObjects::EntityObjects(const NSEntityDescription& entity, NSManagedObjectContext& context)
    : entity_(entity), context_(context), texts_(entity.attributes.size()) {}

EntityObjects::~EntityObjects() {
  for (auto& [key, object] : inserted_) detach(*object);
  for (auto& [key, held] : registry_)
    if (auto object = held.lock()) detach(*object);
}

std::shared_ptr<NSManagedObject> EntityObjects::make(NSManagedObject::Standing standing, std::int64_t key) {
  auto object = entity_.factory ? entity_.factory(entity_) : std::make_shared<NSManagedObject>(entity_);
  object->owner_ = this;
  object->standing_ = standing;
  object->key_ = key;
  return object;
}

void EntityObjects::detach(NSManagedObject& object) {
  object.owner_ = nullptr;
  object.standing_ = NSManagedObject::Standing::unattached;
}

std::shared_ptr<NSManagedObject> EntityObjects::insert() {
  auto object = make(NSManagedObject::Standing::inserted, ++insertions_);
  inserted_.emplace_hint(inserted_.end(), object->key_, object);
  return object;
}

void EntityObjects::remove(const std::shared_ptr<NSManagedObject>& object) {
  if (object->owner_ && object->owner_ != this) fatalError("an object was deleted from another context than its own");
  switch (object->standing_) {
    case NSManagedObject::Standing::inserted:
      inserted_.erase(object->key_);
      detach(*object);
      return;
    case NSManagedObject::Standing::changed:
      changed_.erase(object->key_);
      [[fallthrough]];
    case NSManagedObject::Standing::clean:
      object->standing_ = NSManagedObject::Standing::deleted;
      deleted_.emplace(object->key_, object);
      return;
    case NSManagedObject::Standing::deleted:
    case NSManagedObject::Standing::unattached:
      return;
  }
}

void EntityObjects::noteChange(NSManagedObject& object) {
  object.standing_ = NSManagedObject::Standing::changed;
  changed_.emplace_hint(changed_.end(), object.key_, registered(object.key_));  // mostly in ascending order
}

std::shared_ptr<NSManagedObject> EntityObjects::registered(std::int64_t key) const {
  auto found = registry_.find(key);
  return found == registry_.end() ? nullptr : found->second.lock();
}

std::shared_ptr<NSManagedObject> EntityObjects::registerNew(std::int64_t key) {
  forgetDestroyed();
  auto object = make(NSManagedObject::Standing::clean, key);
  registry_.insert_or_assign(key, object);
  return object;
}

std::shared_ptr<NSManagedObject> EntityObjects::named(const NSManagedObjectID& id, std::int64_t& key) const {
  key = id.key;
  if (id.isTemporary()) {
    if (auto unsaved = inserted_.find(id.key); unsaved != inserted_.end()) return unsaved->second;
    auto saved = keysOfTemporaryIDs_.find(id.key);
    if (saved == keysOfTemporaryIDs_.end()) {
      key = 0;
      return nullptr;
    }
    key = saved->second;
  }
  if (!deleted_.contains(key)) return registered(key);
  key = 0;
  return nullptr;
}

EntityObjects::Portion EntityObjects::portion(std::size_t rows) const {
  if (!deleted_.empty()) return {inserted_.size(), changed_.size(), deleted_.size()};
  const std::size_t inserted = std::min(rows, inserted_.size());
  return {inserted, std::min(rows - inserted, changed_.size()), 0};
}

void EntityObjects::didSave(const Portion& portion, std::int64_t firstKey) {
  forgetDestroyed();
  const auto insertedEnd = std::next(inserted_.begin(), static_cast<std::ptrdiff_t>(portion.inserted));
  for (auto next = inserted_.begin(); next != insertedEnd; ++next) {
    const auto& [number, object] = *next;
    object->key_ = firstKey++;
    object->standing_ = NSManagedObject::Standing::clean;
    if (object->temporaryIDTaken_) keysOfTemporaryIDs_.emplace(number, object->key_);
    if (object.use_count() > 1) registry_.insert_or_assign(object->key_, object);
  }
  inserted_.erase(inserted_.begin(), insertedEnd);
  const auto changedEnd = std::next(changed_.begin(), static_cast<std::ptrdiff_t>(portion.changed));
  for (auto next = changed_.begin(); next != changedEnd; ++next) {
    next->second->standing_ = NSManagedObject::Standing::clean;
    next->second->changed_ = 0;
  }
  changed_.erase(changed_.begin(), changedEnd);
  if (portion.deleted == 0) return;
  for (auto& [row, object] : deleted_) {
    detach(*object);
    registry_.erase(row);
  }
  deleted_.clear();
}

std::shared_ptr<const std::string> EntityObjects::storeUUID() const {
  auto* store = context_.coordinator().store();
  return store ? store->uuid() : nullptr;
}

void EntityObjects::requireCurrent() const {
  if (!context_.isCurrent()) fatalError(concat("a ", entity_.name, " object was used outside a block of its context"));
}

void EntityObjects::countDestroyed() { destroyedObjects.fetch_add(1, std::memory_order_relaxed); }

/// Entries of dropped objects cannot be removed by the objects, which end on any thread. A sweep costs as much as
/// the registry is long, so each one waits for about as many objects to have gone.
void EntityObjects::forgetDestroyed() {
  const std::uint64_t destroyed = destroyedObjects.load(std::memory_order_relaxed);
  if (destroyed - destroyedAtLastSweep_ < std::max<std::uint64_t>(kLeastSweep, registry_.size() / 2)) return;
  destroyedAtLastSweep_ = destroyed;
  std::erase_if(registry_, [](const auto& entry) { return entry.second.expired(); });
}

}  // namespace tarvo::platform
