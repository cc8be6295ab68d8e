#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/persistence/NSManagedObject.h"

namespace tarvo::platform {

class NSManagedObjectContext;

/// What a context holds of one entity: each object that somebody uses, and the unsaved ones.
///
/// Threads: only inside a block of the context; `countDestroyed` any.
/// Ownership: clean objects live as long as others hold them; inserted, changed and deleted ones are held here until
/// `didSave`.
class EntityObjects {
 public:
  /// In the order of their insertion, else by row key.
  using Pending = std::map<std::int64_t, std::shared_ptr<NSManagedObject>>;

  /// What one transaction takes of all that is pending.
  struct Portion {
    std::size_t inserted = 0;  ///< the oldest so many
    std::size_t changed = 0;   ///< so many by row key
    std::size_t deleted = 0;   ///< all or none
    std::size_t size() const { return inserted + changed + deleted; }
  };

  EntityObjects(const NSEntityDescription& entity, NSManagedObjectContext& context);
  ~EntityObjects();
  EntityObjects(const EntityObjects&) = delete;
  EntityObjects& operator=(const EntityObjects&) = delete;

  std::shared_ptr<NSManagedObject> insert();
  void remove(const std::shared_ptr<NSManagedObject>& object);
  /// A clean object turns into a changed one.
  void noteChange(NSManagedObject& object);

  /// The object of a row, or a null pointer when nobody uses it.
  std::shared_ptr<NSManagedObject> registered(std::int64_t key) const;
  /// A clean object without values for a row that has none yet, to be filled from that row.
  std::shared_ptr<NSManagedObject> registerNew(std::int64_t key);
  /// The object that an id names, deleted ones left out. Answers a null pointer and, when the object only has to be
  /// read, its row key in `key`.
  std::shared_ptr<NSManagedObject> named(const NSManagedObjectID& id, std::int64_t& key) const;

  const Pending& inserted() const { return inserted_; }
  const Pending& changed() const { return changed_; }
  const Pending& deleted() const { return deleted_; }
  bool hasChanges() const { return !inserted_.empty() || !changed_.empty() || !deleted_.empty(); }
  static bool isPending(const NSManagedObject& object) { return object.standing_ != NSManagedObject::Standing::clean; }
  static std::uint64_t changeMask(const NSManagedObject& object) { return object.changed_; }

  /// At most `rows` of what is pending; more only where something is deleted, since an insertion may replace it and
  /// neither must be saved without the other.
  Portion portion(std::size_t rows) const;
  /// The portion is in the store now, its inserted objects in their order in the rows from `firstKey` on.
  void didSave(const Portion& portion, std::int64_t firstKey);

  LatestTexts& texts() { return texts_; }

  const NSEntityDescription& entity() const { return entity_; }
  std::shared_ptr<const std::string> storeUUID() const;
  void requireCurrent() const;

  static void countDestroyed();

 private:
  std::shared_ptr<NSManagedObject> make(NSManagedObject::Standing standing, std::int64_t key);
  static void detach(NSManagedObject& object);
  void forgetDestroyed();

  const NSEntityDescription& entity_;
  NSManagedObjectContext& context_;
  std::unordered_map<std::int64_t, std::weak_ptr<NSManagedObject>> registry_;
  std::uint64_t destroyedAtLastSweep_ = 0;
  Pending inserted_;
  Pending changed_;
  Pending deleted_;
  std::int64_t insertions_ = 0;
  LatestTexts texts_;
  /// Row keys of saved objects whose temporary id somebody may have kept.
  std::unordered_map<std::int64_t, std::int64_t> keysOfTemporaryIDs_;
};

}  // namespace tarvo::platform
