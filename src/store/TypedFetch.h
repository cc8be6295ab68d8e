#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

/// The objects of a request in their own class.
///
/// All objects of an entity are of the class that `setEntityClasses` gave it, so looking at the first one is enough.
template <class Class>
platform::Result<std::vector<std::shared_ptr<Class>>> fetchAs(platform::NSManagedObjectContext& context,
                                                              const platform::NSFetchRequest& request) {
  auto fetched = context.fetch(request);
  if (!fetched) return fetched.error();
  if (!fetched->empty() && dynamic_cast<Class*>(fetched->front().get()) == nullptr)
    platform::fatalError("an entity of the object model has not been given its class");
  std::vector<std::shared_ptr<Class>> objects;
  objects.reserve(fetched->size());
  for (auto& object : *fetched) objects.push_back(std::static_pointer_cast<Class>(std::move(object)));
  return objects;
}

/// A new object of the class's entity; a null pointer when the context makes none of that class.
template <class Class>
std::shared_ptr<Class> insertAs(platform::NSManagedObjectContext& context) {
  return std::dynamic_pointer_cast<Class>(context.insertNewObject(Class::kEntity));
}

inline std::optional<std::string> ownedText(std::optional<std::string_view> text) {
  if (!text) return std::nullopt;
  return std::string(*text);
}

}  // namespace tarvo
