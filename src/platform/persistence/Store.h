#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
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
/// Writing: a Transaction around any number of `write`, each with a receipt of its own; once the commit has succeeded
/// each receipt is given to `didCommit`. What is known of a table changes only then, so a failed transaction needs no
/// repair.
struct NSPersistentStoreCoordinator::Store {
 public:
  /// A table's rows have the keys from 1 to the last one given out, except those that are missing. So the number of
  /// rows follows from the highest key, which costs no pass over the table, and only a deletion changes what must be
  /// kept for it: an entry "last missing" in `_metadata`, written in the deletion's own transaction. Small tables have
  /// no entry, unless rows were removed for good: then "last missing removed" tells how many, since numbering goes on
  /// as if they were there.
  struct Keys {
    std::int64_t last = 0;                ///< highest ever given out
    std::int64_t missing = 0;             ///< how many up to it have no row
    std::int64_t removed = 0;             ///< how many of these `removeRows` has taken
    std::optional<std::int64_t> inEntry;  ///< what the entry says is missing
    std::int64_t rows() const { return last - missing; }
  };
  /// What one `write` did, not yet certain.
  struct Receipt {
    std::int64_t firstKey = 0;  ///< of the inserted rows, whose keys follow each other in the order of the insertions
    std::optional<Keys> keys;   ///< of the table afterwards; none if no row came or went
  };

  /// Opens or creates the file; refuses what is not a store of the model. What is there already is not changed. To
  /// create it, one who has not the right to write takes it for the moment.
  static Result<std::unique_ptr<Store>> open(const std::filesystem::path& file,
                                             const std::vector<const NSEntityDescription*>& entities,
                                             const NSManagedObjectModel::Version& version, bool hasRight = false);

  /// From here on this process is the only one that writes: counts are trusted. Brings a store of an earlier version up
  /// to date. On failure nothing has begun.
  std::optional<Error> beginWriting();

  /// Texts that stand beside the records, by name.
  using Metadata = std::map<std::string, std::string, std::less<>>;
  Result<std::optional<std::string>> metadata(std::string_view name);
  std::optional<Error> writeMetadata(std::string_view name, std::string_view value);

  Database& database() { return *database_; }
  const std::shared_ptr<const std::string>& uuid() const { return uuid_; }

  /// The number of rows. The process that writes finds it out once and keeps count; a reader asks the file each time.
  Result<std::int64_t> rowCount(const NSEntityDescription& entity);
  /// How many rows `removeRows` has taken from the table since it was made.
  Result<std::int64_t> removedRows(const NSEntityDescription& entity);
  /// What the file would hold if nothing of it were free.
  Result<std::uint64_t> bytesInUse();
  /// The number of rows that match a plan with conditions.
  Result<std::int64_t> matchingRows(const NSEntityDescription& entity, const FetchPlan& plan);
  /// Whether the row, as the file has it, matches a plan with conditions.
  Result<bool> rowMatches(const NSEntityDescription& entity, const FetchPlan& plan, std::int64_t key);

  /// Whether `write` runs more than one statement, so that a transaction has to stand around it.
  bool needsTransaction(const NSEntityDescription& entity, const EntityObjects::Portion& portion);

  /// Writes a portion of what is pending of one entity.
  std::optional<Error> write(const EntityObjects& objects, const EntityObjects::Portion& portion, Receipt& receipt);
  /// Takes the rows of these keys, which ascend, for good; in a transaction.
  std::optional<Error> removeRows(const NSEntityDescription& entity, const std::vector<std::int64_t>& keys,
                                  Receipt& receipt);
  void didCommit(const NSEntityDescription& entity, const Receipt& receipt);

 private:
  struct Table {
    const NSEntityDescription* entity;
    std::string insert;
    std::optional<Keys> keys;  ///< known to the process that writes once it has asked
    /// A key is used once in a process, also when its row has gone: an id taken before must not name another record.
    std::int64_t lastGiven;
  };

  Store(std::unique_ptr<Database> database, std::string uuid, const std::vector<const NSEntityDescription*>& entities,
        StoreSchema schema);
  Table* table(const NSEntityDescription& entity);
  Result<Keys> keysOf(Table& table);
  Result<Keys> readKeys(const Table& table);
  std::optional<Error> keep(const Table& table, Keys& keys);
  std::optional<Error> insertRows(Table& table, const EntityObjects& objects, std::size_t rows, Keys& keys);
  std::optional<Error> updateRows(const Table& table, const EntityObjects& objects, std::size_t rows);
  std::optional<Error> deleteRows(const Table& table, const EntityObjects& objects, Keys& keys);

  std::unique_ptr<Database> database_;
  std::shared_ptr<const std::string> uuid_;
  const StoreSchema schema_;
  std::vector<Table> tables_;
  bool writes_ = false;
};

}  // namespace tarvo::platform
