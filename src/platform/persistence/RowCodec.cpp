#include "platform/persistence/RowCodec.h"

#include <cstddef>

#include "platform/persistence/InternedText.h"

namespace tarvo::platform {

RowCodec::RowCodec(const NSEntityDescription& entity) : entity_(entity), latest_(entity.attributes.size()) {}

RowCodec::~RowCodec() {
  for (const InternedText* text : latest_)
    if (text) InternedText::release(text);
}

void RowCodec::read(const Execution& row, int firstColumn, NSManagedObject& object) {
  const std::size_t count = entity_.attributes.size();
  for (std::size_t i = 0; i < count; ++i) {
    const int column = firstColumn + static_cast<int>(i);
    if (row.isNull(column)) continue;
    NSManagedObject::Slot& slot = object.slots_[i];
    switch (entity_.attributes[i].type) {
      case NSAttributeType::integer64:
        slot.integer = row.integer(column);
        break;
      case NSAttributeType::boolean:
        slot.integer = row.integer(column) != 0 ? 1 : 0;
        break;
      case NSAttributeType::floating:
      case NSAttributeType::date:
        slot.number = row.number(column);
        break;
      case NSAttributeType::string: {
        const std::string_view text = row.text(column);
        if (!latest_[i] || latest_[i]->view() != text) {
          if (latest_[i]) InternedText::release(latest_[i]);
          latest_[i] = InternedText::acquire(text);
        }
        slot.text = InternedText::retain(latest_[i]);
        break;
      }
    }
    object.present_ |= std::uint64_t{1} << i;
  }
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
