#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/persistence/Database.h"
#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::platform {

/// What a store file of a model looks like: one table for each entity, its indexes, and the metadata.
///
/// A file is a store when its header carries the application id; it is a store of this model when the metadata names
/// the model's hash and every table and index is there as this class would create it.
class StoreSchema {
 public:
  StoreSchema(const std::vector<const NSEntityDescription*>& entities, std::string modelHash);

  /// The file is readable and empty, or an SQLite file with the application id. Reads it as plain bytes, so that a
  /// file of somebody else's is not even opened by SQLite.
  static std::optional<Error> checkHeader(const std::filesystem::path& file);

  /// A power cut has left the file without its header, and beside it the journal that empties it. Reads plain bytes.
  static bool isHalfMade(const std::filesystem::path& file);

  /// Makes the schema in an empty file, in one transaction, unless it is there; then checks it.
  /// Answers the store's UUID.
  Result<std::string> prepare(Database& database) const;

 private:
  std::optional<Error> create(Database& database) const;
  std::optional<Error> checkMetadata(Database& database, std::string& uuid) const;
  std::optional<Error> checkTables(Database& database) const;

  std::string modelHash_;
  std::string entityNames_;
  std::vector<std::pair<std::string, std::string>> objects_;  ///< name and text of each table and index
};

}  // namespace tarvo::platform
