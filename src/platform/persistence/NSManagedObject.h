#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Text.h"
#include "platform/persistence/InternedText.h"
#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::platform {

class EntityObjects;

class NSManagedObjectID;
/// `<x-coredata://STORE/Entity/p12>`, temporary `<x-coredata:///Entity/t7>`.
void append(TextBuilder& out, const NSManagedObjectID& id);

/// Names an object of a store. Temporary until the object's first save; the object then also answers to the
/// permanent one, and a temporary id taken before still finds it in its context.
class NSManagedObjectID {
 public:
  std::string description() const { return concat(*this); }
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
/// Numbers that are not one (NaN) count as absent, and -0 is 0: a store could keep neither.
/// Outlives its context readable, as a record of none, while its model lives.
class NSManagedObject {
 public:
  explicit NSManagedObject(const NSEntityDescription& entity);
  virtual ~NSManagedObject();
  NSManagedObject(const NSManagedObject&) = delete;
  NSManagedObject& operator=(const NSManagedObject&) = delete;

  const NSEntityDescription& entity() const { return *entity_; }
  NSManagedObjectID objectID() const;

  /// Absent when unset. Asking for another type than the attribute's is a programming error (fatal).
  std::optional<std::int64_t> integer(int attribute) const {
    const Slot* value = slot(attribute, NSAttributeType::integer64);
    return value ? std::optional(value->integer) : std::nullopt;
  }
  std::optional<double> number(int attribute) const {
    const Slot* value = slot(attribute, NSAttributeType::floating);
    return value ? std::optional(value->number) : std::nullopt;
  }
  std::optional<bool> boolean(int attribute) const {
    const Slot* value = slot(attribute, NSAttributeType::boolean);
    return value ? std::optional(value->integer != 0) : std::nullopt;
  }
  /// Valid until the attribute changes.
  std::optional<std::string_view> string(int attribute) const {
    const Slot* value = slot(attribute, NSAttributeType::string);
    return value ? std::optional(value->text->view()) : std::nullopt;
  }
  std::optional<Date> date(int attribute) const {
    const Slot* value = slot(attribute, NSAttributeType::date);
    return value ? std::optional(dateSince1970(value->number)) : std::nullopt;
  }

  /// Absent values unset. A set that changes nothing is no change.
  void setInteger(int attribute, std::optional<std::int64_t> value);
  void setNumber(int attribute, std::optional<double> value);
  void setBoolean(int attribute, std::optional<bool> value);
  void setString(int attribute, std::optional<std::string_view> value);
  void setDate(int attribute, std::optional<Date> value);

 private:
  friend class EntityObjects;  ///< keeps standing, key and owner
  friend class RowCodec;       ///< moves slots from and to rows
  friend class FetchPlan;      ///< compares slots

  union Slot {
    std::int64_t integer;  ///< integers and Booleans
    double number;         ///< numbers and dates, the latter in seconds since 1970
    const InternedText* text;
  };
  enum class Standing : std::uint8_t { unattached, inserted, clean, changed, deleted };

  bool isPresent(int attribute) const { return (present_ >> attribute & 1U) != 0; }
  void require(int attribute, NSAttributeType type) const {
    if (!entity_->isOfType(attribute, type)) refuse(attribute);
  }
  /// Before each change.
  void requireSettable(int attribute, NSAttributeType type) const;
  [[noreturn]] void refuse(int attribute) const;
  /// Null when absent.
  const Slot* slot(int attribute, NSAttributeType type) const {
    require(attribute, type);
    return isPresent(attribute) ? &slots_[static_cast<std::size_t>(attribute)] : nullptr;
  }
  /// Takes a text's reference over.
  void assign(int attribute, std::optional<Slot> value);
  void assignNumber(int attribute, std::optional<double> value);

  const NSEntityDescription* entity_;
  EntityObjects* owner_ = nullptr;  ///< the context's objects of this entity, null outside a context
  std::unique_ptr<Slot[]> slots_;
  std::uint64_t present_ = 0;
  std::uint64_t changed_ = 0;  ///< set since the last save; kept while it stands in a store
  std::int64_t key_ = 0;       ///< of its row; while inserted the number of its insertion
  Standing standing_ = Standing::unattached;
  mutable bool temporaryIDTaken_ = false;
};

}  // namespace tarvo::platform
