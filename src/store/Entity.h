#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "log/Log.h"
#include "platform/foundation/FatalError.h"
#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

/// What the classes of the store's records share. Each names its entity in `kEntity`.
///
/// Threads: everything only inside a block of the given context. No operation saves; none throws: what fails is logged
/// and gives nothing or an empty list.
template <class Class>
class Entity : public platform::NSManagedObject {
 public:
  using List = std::vector<std::shared_ptr<Class>>;
  using Context = platform::NSManagedObjectContext;

  using NSManagedObject::NSManagedObject;

 protected:
  /// The records of a request, whose entity may be left out. Absent when they cannot be fetched, which is logged behind
  /// `failureText`.
  static std::optional<List> fetch(Context& context, std::string_view failureText,
                                   platform::NSFetchRequest request = {}) {
    request.entity = Class::kEntity;
    auto fetched = context.fetch(request);
    if (!fetched) {
      Log::error(failureText, platform::errorAndUserInfo(fetched.error()));
      return std::nullopt;
    }
    // All records of an entity are of the class that `setEntityClasses` gave it: looking at the first one is enough.
    if (!fetched->empty() && dynamic_cast<Class*>(fetched->front().get()) == nullptr)
      platform::fatalError("an entity of the object model has not been given its class");
    List records;
    records.reserve(fetched->size());
    for (auto& object : *fetched) records.push_back(std::static_pointer_cast<Class>(std::move(object)));
    return records;
  }

  /// Deletes the records of a request, each with a line of the log: `opening` and that integer attribute.
  static void remove(Context& context, std::string_view failureText, std::string_view opening, int attribute,
                     const platform::NSFetchRequest& request = {}) {
    (void)context.claim();  // who was kept out until now sees them again
    const auto records = fetch(context, failureText, request);
    if (!records) return;
    for (const auto& record : *records) {
      Log::debug(opening, record->integer(attribute));
      context.deleteObject(record);
    }
  }

  static platform::Result<std::size_t> count(Context& context, platform::NSFetchRequest request = {}) {
    request.entity = Class::kEntity;
    return context.count(request);
  }

  /// A new record; a null pointer when the context makes none of the class.
  static std::shared_ptr<Class> insert(Context& context) {
    return std::dynamic_pointer_cast<Class>(context.insertNewObject(Class::kEntity));
  }

  /// A text attribute as a value of its own.
  std::optional<std::string> text(int attribute) const {
    const auto view = string(attribute);
    return view ? std::optional<std::string>(*view) : std::nullopt;
  }
};

}  // namespace tarvo
