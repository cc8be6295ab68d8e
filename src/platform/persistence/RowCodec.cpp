#include "platform/persistence/RowCodec.h"

#include <bit>
#include <cstddef>

#include "platform/foundation/Text.h"
#include "platform/persistence/InternedText.h"

namespace tarvo::platform {

RowCodec::RowCodec(const NSEntityDescription& entity) : entity_(entity), texts_(entity.attributes.size()) {}

std::string RowCodec::selectText() const {
  std::string sql = "SELECT \"_key\"";
  for (const auto& attribute : entity_.attributes) sql += concat(", \"", attribute.name, "\"");
  return sql + concat(" FROM \"", entity_.name, "\"");
}

void RowCodec::read(const Execution& row, NSManagedObject& object) {
  std::uint64_t present = 0;
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
        slot.text = texts_.acquire(position, cell.text());
        break;
    }
    present |= std::uint64_t{1} << position;
  }
  object.present_ = present;
}

bool RowCodec::changesEqually(const NSManagedObject& a, const NSManagedObject& b) {
  const std::uint64_t mask = a.changed_;
  if (b.changed_ != mask || ((a.present_ ^ b.present_) & mask) != 0) return false;
  for (std::uint64_t rest = mask & a.present_; rest != 0; rest &= rest - 1) {
    const auto position = static_cast<std::size_t>(std::countr_zero(rest));
    // Equal texts share an address, so all kinds of slots compare by their bits.
    if (std::bit_cast<std::uint64_t>(a.slots_[position]) != std::bit_cast<std::uint64_t>(b.slots_[position]))
      return false;
  }
  return true;
}

void RowCodec::bind(Execution& execution, int parameter, const NSManagedObject& object, int attribute) {
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
      execution.bind(parameter, slot.text->view());
      break;
  }
}

}  // namespace tarvo::platform
