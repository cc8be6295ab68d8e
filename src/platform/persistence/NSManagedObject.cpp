#include "platform/persistence/NSManagedObject.h"

#include <bit>
#include <cmath>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/EntityObjects.h"
#include "platform/persistence/InternedText.h"

namespace tarvo::platform {

void append(TextBuilder& out, const NSManagedObjectID& id) {
  appendAll(out, "<x-coredata://", id.storeUUID ? std::string_view(*id.storeUUID) : "", "/",
            id.entity ? std::string_view(id.entity->name) : "", id.isTemporary() ? "/t" : "/p", id.key, ">");
}

NSManagedObject::NSManagedObject(const NSEntityDescription& entity)
    : entity_(&entity), slots_(std::make_unique<Slot[]>(entity.attributes.size())) {}

NSManagedObject::~NSManagedObject() {
  const std::uint64_t texts = entity_->ofType[static_cast<std::size_t>(NSAttributeType::string)];
  for (std::uint64_t rest = present_ & texts; rest != 0; rest &= rest - 1)
    InternedText::release(slots_[static_cast<std::size_t>(std::countr_zero(rest))].text);
  EntityObjects::countDestroyed();
}

NSManagedObjectID NSManagedObject::objectID() const {
  const bool temporary = standing_ == Standing::inserted;
  if (temporary) temporaryIDTaken_ = true;
  return {entity_, key_, temporary, owner_ && !temporary ? owner_->storeUUID() : nullptr};
}

void NSManagedObject::refuse(int attribute) const {
  fatalError(concat("attribute ", attribute, " of ", entity_->name, " is not of the type asked for"));
}

void NSManagedObject::requireSettable(int attribute, NSAttributeType type) const {
  require(attribute, type);
  if (owner_) owner_->requireCurrent();
}

void NSManagedObject::setInteger(int attribute, std::optional<std::int64_t> value) {
  requireSettable(attribute, NSAttributeType::integer64);
  assign(attribute, value ? std::optional(Slot{.integer = *value}) : std::nullopt);
}

void NSManagedObject::setNumber(int attribute, std::optional<double> value) {
  requireSettable(attribute, NSAttributeType::floating);
  assignNumber(attribute, value);
}

void NSManagedObject::setBoolean(int attribute, std::optional<bool> value) {
  requireSettable(attribute, NSAttributeType::boolean);
  assign(attribute, value ? std::optional(Slot{.integer = *value ? 1 : 0}) : std::nullopt);
}

void NSManagedObject::setString(int attribute, std::optional<std::string_view> value) {
  requireSettable(attribute, NSAttributeType::string);
  if (!value) return assign(attribute, std::nullopt);
  assign(attribute, Slot{.text = owner_ ? owner_->texts().acquire(static_cast<std::size_t>(attribute), *value)
                                        : InternedText::acquire(*value)});
}

void NSManagedObject::setDate(int attribute, std::optional<Date> value) {
  requireSettable(attribute, NSAttributeType::date);
  assignNumber(attribute, value ? std::optional(secondsSince1970(*value)) : std::nullopt);
}

void NSManagedObject::assignNumber(int attribute, std::optional<double> value) {
  if (value && std::isnan(*value)) value.reset();
  assign(attribute, value ? std::optional(Slot{.number = *value + 0.0}) : std::nullopt);  // -0 + 0 is 0
}

void NSManagedObject::assign(int attribute, std::optional<Slot> value) {
  const auto position = static_cast<std::size_t>(attribute);
  const bool isText = entity_->isOfType(attribute, NSAttributeType::string);
  const bool wasPresent = isPresent(attribute);
  Slot& slot = slots_[position];
  // Equal texts share an address, so all kinds of slots compare by their bits.
  const bool same = wasPresent == value.has_value() &&
                    (!value || std::bit_cast<std::uint64_t>(slot) == std::bit_cast<std::uint64_t>(*value));
  if (same) {
    if (isText && value) InternedText::release(value->text);
    return;
  }
  if (isText && wasPresent) InternedText::release(slot.text);
  const std::uint64_t bit = std::uint64_t{1} << attribute;
  if (value) {
    slot = *value;
    present_ |= bit;
  } else {
    present_ &= ~bit;
  }
  if (standing_ == Standing::clean) owner_->noteChange(*this);
  if (standing_ == Standing::changed) changed_ |= bit;
}

}  // namespace tarvo::platform
