#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"
#include "platform/persistence/NSManagedObjectModel.h"

namespace tarvo::platform {

inline constexpr const char* NSSQLiteStoreType = "SQLite";

/// Joins a model to the one store file that holds its records.
///
/// Without a store, fetches, counts and saves through a context give an error.
/// Threads: adding a store before use; then only through the context's queue.
class NSPersistentStoreCoordinator {
 public:
  explicit NSPersistentStoreCoordinator(std::shared_ptr<NSManagedObjectModel> model);
  ~NSPersistentStoreCoordinator();

  /// Opens (or creates, when the file is absent or empty) the SQLite file and reads its header, schema and metadata,
  /// so that a file that is not a store of this model is refused here. Never migrates, renames or deletes.
  /// Absent on success.
  std::optional<Error> addPersistentStore(std::string_view type, std::string_view configuration,
                                          const std::filesystem::path& url);
  bool hasStore() const;
  const NSManagedObjectModel& model() const { return *model_; }
  /// Moves what the write-ahead log holds into the database file.
  std::optional<Error> checkpoint();

  struct Store;
  Store* store() { return store_.get(); }

 private:
  std::shared_ptr<NSManagedObjectModel> model_;
  std::unique_ptr<Store> store_;
};

}  // namespace tarvo::platform
