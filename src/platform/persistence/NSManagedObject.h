#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Text.h"
#include "platform/persistence/NSManagedObjectModel.h"
#include "platform/persistence/TextRef.h"

namespace tarvo::platform {

class EntityObjects;

struct NSManagedObjectID;
/// `<x-coredata://STORE/Entity/p12>`, temporary `<x-coredata:///Entity/t7>`.
void append(TextBuilder& out, const NSManagedObjectID& id);

/// Names an object of a store. Temporary until the object's first save; the object then also answers to the
/// permanent one, and a temporary id taken before still finds it in its context.
struct NSManagedObjectID {
  const NSEntityDescription* entity = nullptr;
  std::int64_t key = 0;  ///< of the row; of a temporary id the number of the insertion
  bool temporary = false;
  std::shared_ptr<const std::string> storeUUID;

  bool operator==(const NSManagedObjectID&) const = default;
  std::string description() const { return concat(*this); }
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
    return value ? std::optional(value->text.view()) : std::nullopt;
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
  friend class EntityObjects;  ///< keeps standing, key and owner; moves values from and to rows
  friend class FetchPlan;      ///< compares values

  /// The attribute's type tells which member lives; a new one holds no text, the record drops the text of each at its
  /// end.
  union Slot {
    Slot() : text() {}
    ~Slot() {}
    std::int64_t integer;  ///< integers and Booleans
    double number;         ///< numbers and dates, the latter in seconds since 1970
    TextRef text;
  };
  /// An array made by `new` would keep its length beside it.
  struct FreeSlots {
    void operator()(Slot* slots) const { ::operator delete(slots); }
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
  template <class Value>
  void assign(int attribute, Value Slot::*member, std::optional<Value> value);
  void assignNumber(int attribute, std::optional<double> value);
  /// Whether the attribute has the same value in both, both being present.
  static bool isSame(const NSManagedObject& a, const NSManagedObject& b, std::size_t attribute);

  const NSEntityDescription* entity_;
  EntityObjects* owner_ = nullptr;  ///< the context's objects of this entity, null outside a context
  std::unique_ptr<Slot[], FreeSlots> slots_;
  std::uint64_t present_ = 0;
  std::uint64_t changed_ = 0;  ///< set since the last save; kept while it stands in a store
  std::int64_t key_ = 0;       ///< of its row; while inserted the number of its insertion
  Standing standing_ = Standing::unattached;
  mutable bool temporaryIDTaken_ = false;
};

}  // namespace tarvo::platform
