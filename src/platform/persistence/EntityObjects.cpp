#include "platform/persistence/EntityObjects.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <iterator>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/NSManagedObjectContext.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {
namespace {

/// How many objects have ended in this process: when many have, a registry may hold many entries that lead nowhere.
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

std::string EntityObjects::selectText() const {
  std::string sql = "SELECT \"_key\"";
  for (const auto& attribute : entity_.attributes) sql += concat(", \"", attribute.name, "\"");
  return sql + concat(" FROM \"", entity_.name, "\"");
}

std::shared_ptr<NSManagedObject> EntityObjects::registerNew(const Execution& row) {
  forgetDestroyed();
  auto object = make(NSManagedObject::Standing::clean, row.integer(0));
  fill(*object, row);
  registry_.insert_or_assign(object->key_, object);
  return object;
}

void EntityObjects::fill(NSManagedObject& object, const Execution& row) {
  for (std::size_t position = 0; position < entity_.attributes.size(); ++position) {
    const Cell cell = row.cell(static_cast<int>(position) + 1);  // the key comes first
    if (cell.isNull()) continue;
    NSManagedObject::Slot& slot = object.slots_[position];
    switch (entity_.attributes[position].type) {
      case NSAttributeType::integer64:
        slot.integer = cell.integer();
        break;
      case NSAttributeType::boolean:
        slot.integer = cell.integer() != 0 ? 1 : 0;
        break;
      case NSAttributeType::floating:
      case NSAttributeType::date:
        slot.number = cell.number();
        break;
      case NSAttributeType::string:
        slot.text = texts_.get(position, cell.text());
        break;
    }
    object.present_ |= std::uint64_t{1} << position;
  }
}

bool EntityObjects::changesEqually(const NSManagedObject& a, const NSManagedObject& b) {
  const std::uint64_t mask = a.changed_;
  if (b.changed_ != mask || ((a.present_ ^ b.present_) & mask) != 0) return false;
  for (std::uint64_t rest = mask & a.present_; rest != 0; rest &= rest - 1)
    if (!NSManagedObject::isSame(a, b, static_cast<std::size_t>(std::countr_zero(rest)))) return false;
  return true;
}

void EntityObjects::bind(Execution& execution, int parameter, const NSManagedObject& object, int attribute) {
  if (!object.isPresent(attribute)) {
    execution.bindNull(parameter);
    return;
  }
  const auto position = static_cast<std::size_t>(attribute);
  const NSManagedObject::Slot& slot = object.slots_[position];
  switch (object.entity_->attributes[position].type) {
    case NSAttributeType::integer64:
    case NSAttributeType::boolean:
      execution.bind(parameter, slot.integer);
      break;
    case NSAttributeType::floating:
    case NSAttributeType::date:
      execution.bind(parameter, slot.number);
      break;
    case NSAttributeType::string:
      execution.bind(parameter, slot.text.view());
      break;
  }
}

std::shared_ptr<NSManagedObject> EntityObjects::named(const NSManagedObjectID& id, std::int64_t& key) const {
  key = id.key;
  if (id.temporary) {
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
