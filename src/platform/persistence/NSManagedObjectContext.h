#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Error.h"
#include "platform/foundation/SerialQueue.h"
#include "platform/persistence/NSFetchRequest.h"
#include "platform/persistence/NSManagedObject.h"
#include "platform/persistence/NSPersistentStoreCoordinator.h"
#include "platform/persistence/StoredRows.h"

namespace tarvo::platform {

/// A working copy of the store with a private queue of its own.
///
/// Threads: `perform` and `performAndWait` from any; everything else only inside their blocks (fatal elsewhere).
/// One context at a time for a coordinator.
/// An object is one object within the context for as long as somebody holds it or it has unsaved changes.
/// Fetches and counts see unsaved inserts, changes and deletes; sort and limit come after they are merged in.
class NSManagedObjectContext {
 public:
  explicit NSManagedObjectContext(std::shared_ptr<NSPersistentStoreCoordinator> coordinator);
  ~NSManagedObjectContext();

  /// Queues a block; returns at once.
  void perform(std::function<void()> block);
  /// Runs a block on the caller's thread, behind all that was queued before; from inside a block of this context at
  /// once.
  void performAndWait(const std::function<void()>& block);
  bool isCurrent() const;

  Result<std::vector<std::shared_ptr<NSManagedObject>>> fetch(const NSFetchRequest& request);
  /// The number of objects that `fetch` would give. Without predicates it costs the same at every table size.
  Result<std::size_t> count(const NSFetchRequest& request);
  /// The rows that match now, without limit, to be gone through later without making objects of them.
  Result<StoredRows> rows(const NSFetchRequest& request);

  /// What `removeRows` has taken.
  struct Removal {
    std::size_t rows = 0;
    std::optional<std::int64_t> highest;  ///< of the counters of these rows
  };
  /// The first and the last of numbers that follow each other.
  struct Numbers {
    std::int64_t first, last;
  };
  /// Looks at the rows of a request for an entity that counts, those of the numbers `among`, `fetchLimit` of them in
  /// its order, and removes those which match `matching` and which nobody holds an object of, `most` at the most, in
  /// one transaction of its own that makes no objects. Nothing is removed while anything is unsaved. What is removed
  /// stays counted: see `removedRows`.
  Result<Removal> removeRows(const NSFetchRequest& request, Numbers among, const std::vector<NSPredicate>& matching,
                             std::size_t most);
  /// How many rows of an entity `removeRows` has taken since the store was made. A number that counts on is that of the
  /// rows and these together.
  Result<std::int64_t> removedRows(std::string_view entity);
  /// The bytes of the store's file that are in use; what a removal has freed is used again before the file grows.
  Result<std::uint64_t> storeBytes();

  /// Forgets all that is unsaved, lets go of every object, and renews the store (see NSPersistentStoreCoordinator).
  std::optional<Error> renewStore(const std::function<std::optional<Error>()>& between);

  /// Takes the right to write to the store (see NSPersistentStoreCoordinator). Call it before reading what is to be
  /// changed, so that nobody else changes it in between. `insertNewObject` and `save` take the right themselves.
  /// Changing or deleting an object does not: a process that only reads may do so as long as it never saves. Absent on
  /// success.
  std::optional<Error> claim(std::optional<WriteRight::Span> wait = {});
  /// A new object with every attribute absent; a null pointer for an unknown entity.
  std::shared_ptr<NSManagedObject> insertNewObject(std::string_view entity);
  void deleteObject(const std::shared_ptr<NSManagedObject>& object);
  /// The object of an id, read from the store if needed; an error (Cocoa 133000) when there is none.
  Result<std::shared_ptr<NSManagedObject>> existingObject(const NSManagedObjectID& id);

  bool hasChanges() const;
  /// Of one entity; false for an unknown one.
  bool hasChanges(std::string_view entity) const;
  /// How many objects of an entity exist only here, also without a store; costs nothing.
  std::size_t pendingInsertions(std::string_view entity) const;
  /// A text that stands beside the records in the store's file, absent when there is none; an unsaved one counts.
  Result<std::optional<std::string>> metadata(std::string_view name);
  /// Puts such a text under `name`, in place of the one before. It is a change like that of an object: written with the
  /// next save, in its (first) transaction. Names with a dot, and those of the store's own schema, are taken.
  void setMetadata(std::string_view name, std::string value);

  /// Writes all changes in one transaction. On failure everything stays pending and goes out with the next save.
  ///
  /// The save after a failed one writes in transactions that begin with a single row, the oldest, and double, so that a
  /// disk that stays full costs the same however much is pending. The first that fails ends it: what was written until
  /// then is saved, the rest stays pending.
  ///
  /// Inside a block given to `perform` the save is deferred: it is written when no such block waits any more, and
  /// before the next `performAndWait` from outside runs, so that a thousand small saves share one transaction. What a
  /// later block changes without saving goes out with them. A failure is then told to `setLateFailure`'s receiver.
  std::optional<Error> save();
  /// Saves if the last save failed and its changes are still pending.
  std::optional<Error> saveAfterFailure();
  /// Who is told when a deferred save fails, since no caller can be. Called inside a block of the context; to be set
  /// before the first `perform`.
  void setLateFailure(std::function<void(const Error&)> receiver) { lateFailure_ = std::move(receiver); }

  /// Called at the beginning of each save that has something to write and the right to do so; what it changes goes into
  /// the same transaction. To be set before the first save.
  void setWillSave(std::function<void()> receiver) { willSave_ = std::move(receiver); }

  NSPersistentStoreCoordinator& coordinator() { return *coordinator_; }

 private:
  struct State;
  struct Request;
  void requireCurrent() const;
  Result<Request> compiled(const NSFetchRequest& request, std::string_view operation);
  const EntityObjects* objectsOf(std::string_view entity) const;
  std::optional<Error> write();
  std::optional<Error> writeAtMost(std::size_t rows);
  void writeDeferredSave();

  std::shared_ptr<NSPersistentStoreCoordinator> coordinator_;
  std::unique_ptr<State> state_;
  std::function<void(const Error&)> lateFailure_;
  std::function<void()> willSave_;
  std::atomic<std::size_t> performing_ = 0;  ///< blocks given to `perform` that have not ended
  SerialQueue queue_;                        ///< last: its end waits for blocks that use the rest
};

}  // namespace tarvo::platform
