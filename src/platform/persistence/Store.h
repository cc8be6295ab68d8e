#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/persistence/Database.h"
#include "platform/persistence/EntityObjects.h"
#include "platform/persistence/FetchPlan.h"
#include "platform/persistence/NSPersistentStoreCoordinator.h"
#include "platform/persistence/StoreSchema.h"

namespace tarvo::platform {

/// The open store file: rows in, rows out, and the number of rows of each table.
///
/// Threads: only inside blocks of the one context.
/// Writing: a Transaction around any number of `write`, each with a receipt of its own (a single row needs none); once
/// the commit has succeeded each receipt is given to `didCommit`. Nothing here changes before that, so a failed
/// transaction needs no repair.
struct NSPersistentStoreCoordinator::Store {
 public:
  /// What one `write` did, not yet certain.
  struct Receipt {
    std::int64_t firstKey = 0;  ///< of the inserted rows, whose keys follow each other in the order of the insertions
    std::optional<std::int64_t> lastKey;  ///< of the inserted rows
    std::int64_t rowsAdded = 0;           ///< negative when more were deleted
  };

  /// Opens or creates the file; refuses what is not a store of the model. What is there already is not changed.
  static Result<std::unique_ptr<Store>> open(const std::filesystem::path& file,
                                             const std::vector<const NSEntityDescription*>& entities,
                                             const NSManagedObjectModel::Version& version);

  /// From here on this process is the only one that writes: counts are trusted. Brings a store of an earlier version up
  /// to date. On failure nothing has begun.
  std::optional<Error> beginWriting();

  Database& database() { return *database_; }
  const std::shared_ptr<const std::string>& uuid() const { return uuid_; }

  /// The number of rows; costs nothing once it is known, which only the process that writes can rely on.
  Result<std::int64_t> rowCount(const NSEntityDescription& entity);
  /// Whether rows may exist that a plan with conditions leaves out; false only where that costs little to find.
  Result<bool> leavesRowsOut(const NSEntityDescription& entity, const FetchPlan& plan);
  /// The number of rows that match a plan with conditions.
  Result<std::int64_t> matchingRows(const NSEntityDescription& entity, const FetchPlan& plan);
  /// Whether the row, as the file has it, matches a plan with conditions.
  Result<bool> rowMatches(const NSEntityDescription& entity, const FetchPlan& plan, std::int64_t key);

  /// Whether all rows of an entity with a counter are in step; one look into an index.
  bool areInStep(const NSEntityDescription& entity);

  /// Writes a portion of what is pending of one entity; more than one row needs a transaction.
  std::optional<Error> write(const EntityObjects& objects, const EntityObjects::Portion& portion, Receipt& receipt);
  void didCommit(const NSEntityDescription& entity, const Receipt& receipt);

 private:
  struct Table {
    const NSEntityDescription* entity;
    std::string insert;
    std::optional<std::int64_t> rows;     ///< known once somebody has asked
    std::optional<std::int64_t> lastKey;  ///< highest ever given out; known from the first insert on
  };

  Store(std::unique_ptr<Database> database, std::string uuid, const std::vector<const NSEntityDescription*>& entities,
        StoreSchema schema);
  Table* table(const NSEntityDescription& entity);
  std::optional<Error> insertRows(Table& table, const EntityObjects& objects, std::size_t rows, Receipt& receipt);
  std::optional<Error> updateRows(const Table& table, const EntityObjects& objects, std::size_t rows);
  std::optional<Error> deleteRows(const Table& table, const EntityObjects& objects, Receipt& receipt);

  std::unique_ptr<Database> database_;
  std::shared_ptr<const std::string> uuid_;
  const StoreSchema schema_;
  std::vector<Table> tables_;
  bool writes_ = false;
};

}  // namespace tarvo::platform
