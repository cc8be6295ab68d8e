#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>

#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::platform {

/// Names an object of a store. Temporary until the object's first save; the object then also answers to the
/// permanent one, and a temporary id taken before still finds it in its context.
class NSManagedObjectID {
 public:
  /// `<x-coredata://STORE/Entity/p12>`, temporary `<x-coredata:///Entity/t7>`.
  std::string description() const;
  bool isTemporary() const { return temporary_; }
  bool operator==(const NSManagedObjectID&) const = default;

  const NSEntityDescription* entity = nullptr;
  std::int64_t key = 0;
  bool temporary_ = false;
  std::shared_ptr<const std::string> storeUUID;
};

/// One record of a context. Attributes are addressed by their position in the entity.
///
/// Threads: only inside a block of its context. Texts that repeat are kept once in memory.
/// Memory: one heap block of 8 bytes an attribute beside the object itself.
class NSManagedObject {
 public:
  explicit NSManagedObject(const NSEntityDescription& entity);
  virtual ~NSManagedObject();
  NSManagedObject(const NSManagedObject&) = delete;
  NSManagedObject& operator=(const NSManagedObject&) = delete;

  const NSEntityDescription& entity() const { return *entity_; }
  NSManagedObjectID objectID() const;

  /// Absent when unset. Asking for another type than the attribute's is a programming error (fatal).
  std::optional<std::int64_t> integer(int attribute) const;
  std::optional<double> number(int attribute) const;
  std::optional<bool> boolean(int attribute) const;
  std::optional<std::string_view> string(int attribute) const;  ///< valid until the attribute changes
  std::optional<Date> date(int attribute) const;

  /// Absent values unset. A set that changes nothing is no change.
  void setInteger(int attribute, std::optional<std::int64_t> value);
  void setNumber(int attribute, std::optional<double> value);
  void setBoolean(int attribute, std::optional<bool> value);
  void setString(int attribute, std::optional<std::string_view> value);
  void setDate(int attribute, std::optional<Date> value);

 private:
  friend class NSManagedObjectContext;
  // The implementer of the store adds slots, state and the change mask here.
  const NSEntityDescription* entity_;
};

}  // namespace tarvo::platform
