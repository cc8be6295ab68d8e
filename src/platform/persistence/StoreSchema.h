#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/persistence/Database.h"
#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::platform {

/// What a store file of a model looks like: one table for each entity, its indexes, and the metadata.
///
/// A file is a store when its header carries the application id. It is a store of this model when the metadata names
/// the model's version and hash and every table and index is there. A store of an earlier version is read as it is and
/// brought up to date by the first process that writes; one of a later version, or with what this model does not know,
/// is refused and left alone.
class StoreSchema {
 public:
  StoreSchema(std::vector<const NSEntityDescription*> entities, NSManagedObjectModel::Version version);

  /// The file is readable and empty, or an SQLite file with the application id. Reads it as plain bytes, so that a
  /// file of somebody else's is not even opened by SQLite.
  static std::optional<Error> checkHeader(const std::filesystem::path& file);

  /// A power cut has left the file without its header, and beside it the journal that empties it. Reads plain bytes.
  static bool isHalfMade(const std::filesystem::path& file);

  /// Makes the schema in an empty file, in one transaction, unless it is there; then checks it. A store of an earlier
  /// version is not changed: what it lacks reads as absent. Answers the store's UUID.
  Result<std::string> prepare(Database& database) const;

  /// Brings a store of an earlier version up to date, in one transaction; nothing to do for any other. With the right
  /// to write. On failure the file is as it was.
  std::optional<Error> bringUpToDate(Database& database) const;

 private:
  using Metadata = std::map<std::string, std::string, std::less<>>;
  /// What to run so that a file has the model's schema.
  struct Steps {
    std::vector<std::string> removals;   ///< of indexes and triggers
    std::vector<std::string> additions;  ///< of tables, columns and indexes
    std::vector<std::string> views;      ///< stand in, for this connection alone, for tables that lack something
  };

  std::optional<Error> create(Database& database) const;
  std::optional<Error> writeMetadata(Database& database, std::string_view uuid) const;
  Result<Metadata> checkedMetadata(Database& database) const;
  bool isOlder(const Metadata& metadata) const;
  Result<Steps> stepsFrom(Database& database) const;
  static std::optional<Error> addTableSteps(Database& database, const NSEntityDescription& entity, Steps& steps);
  static std::optional<Error> addIndexSteps(Database& database, const NSEntityDescription& entity, Steps& steps);

  std::vector<const NSEntityDescription*> entities_;
  NSManagedObjectModel::Version version_;
  std::string entityNames_;
};

}  // namespace tarvo::platform
