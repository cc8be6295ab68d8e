#include "platform/persistence/NSManagedObject.h"

#include <bit>
#include <cmath>
#include <memory>
#include <new>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/EntityObjects.h"

namespace tarvo::platform {

void append(TextBuilder& out, const NSManagedObjectID& id) {
  append(out, "<x-coredata://", id.storeUUID ? std::string_view(*id.storeUUID) : "", "/",
         id.entity ? std::string_view(id.entity->name) : "", id.temporary ? "/t" : "/p", id.key, ">");
}

NSManagedObject::NSManagedObject(const NSEntityDescription& entity)
    : entity_(&entity), slots_(static_cast<Slot*>(::operator new(entity.attributes.size() * sizeof(Slot)))) {
  std::uninitialized_default_construct_n(slots_.get(), entity.attributes.size());
}

NSManagedObject::~NSManagedObject() {
  const std::uint64_t texts = entity_->ofType[static_cast<std::size_t>(NSAttributeType::string)];
  for (std::uint64_t rest = present_ & texts; rest != 0; rest &= rest - 1)
    std::destroy_at(&slots_[static_cast<std::size_t>(std::countr_zero(rest))].text);
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
  assign(attribute, &Slot::integer, value);
}

void NSManagedObject::setNumber(int attribute, std::optional<double> value) {
  requireSettable(attribute, NSAttributeType::floating);
  assignNumber(attribute, value);
}

void NSManagedObject::setBoolean(int attribute, std::optional<bool> value) {
  requireSettable(attribute, NSAttributeType::boolean);
  assign(attribute, &Slot::integer, value ? std::optional<std::int64_t>(*value ? 1 : 0) : std::nullopt);
}

void NSManagedObject::setString(int attribute, std::optional<std::string_view> value) {
  requireSettable(attribute, NSAttributeType::string);
  std::optional<TextRef> text;
  if (value) text = owner_ ? owner_->texts().get(static_cast<std::size_t>(attribute), *value) : TextRef(*value);
  assign(attribute, &Slot::text, std::move(text));
}

void NSManagedObject::setDate(int attribute, std::optional<Date> value) {
  requireSettable(attribute, NSAttributeType::date);
  assignNumber(attribute, value ? std::optional(secondsSince1970(*value)) : std::nullopt);
}

void NSManagedObject::assignNumber(int attribute, std::optional<double> value) {
  if (value && std::isnan(*value)) value.reset();
  if (value) *value += 0.0;  // -0 + 0 is 0
  assign(attribute, &Slot::number, value);
}

template <class Value>
void NSManagedObject::assign(int attribute, Value Slot::*member, std::optional<Value> value) {
  Value& held = slots_[static_cast<std::size_t>(attribute)].*member;
  const bool wasPresent = isPresent(attribute);
  if (wasPresent == value.has_value() && (!value || held == *value)) return;
  const std::uint64_t bit = std::uint64_t{1} << attribute;
  present_ = value ? present_ | bit : present_ & ~bit;
  held = value ? std::move(*value) : Value();
  if (standing_ == Standing::clean) owner_->noteChange(*this);
  if (standing_ == Standing::changed) changed_ |= bit;
}

bool NSManagedObject::isSame(const NSManagedObject& a, const NSManagedObject& b, std::size_t attribute) {
  switch (a.entity_->attributes[attribute].type) {
    case NSAttributeType::integer64:
    case NSAttributeType::boolean:
      return a.slots_[attribute].integer == b.slots_[attribute].integer;
    case NSAttributeType::floating:
    case NSAttributeType::date:
      return a.slots_[attribute].number == b.slots_[attribute].number;
    case NSAttributeType::string:
      return a.slots_[attribute].text == b.slots_[attribute].text;
  }
  return false;
}

}  // namespace tarvo::platform
