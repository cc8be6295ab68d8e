#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/foundation/Guarded.h"
#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

/// The process's object store: where it lies, its model, its coordinator and the one context, each built on first
/// use and then kept.
///
/// Threads: any; building is guarded. Records are touched only inside blocks of the context.
/// Errors: a missing model or an empty list of document directories stops the process. A store that cannot be opened
/// is logged once; the coordinator then stays without one and every later fetch and save fails for its caller. So it
/// does while another process has the right to write and this one wants it.
class ObjectStore {
 public:
  explicit ObjectStore(platform::WriteRight::Patience patience = {}) : patience_(patience) {}

  static constexpr const char* kFileName = "Marrowgate-Tarvo-db3.sqlite";

  /// The last of the document directories.
  const std::filesystem::path& applicationDocumentsDirectory();
  const std::shared_ptr<platform::NSManagedObjectModel>& managedObjectModel();
  const std::shared_ptr<platform::NSPersistentStoreCoordinator>& persistentStoreCoordinator();
  platform::NSManagedObjectContext& managedObjectContext();

  /// Saves what is pending; only from inside a block of the context. A failure is logged and everything stays
  /// pending for the next save.
  void saveContext();
  /// Saves what the last save could not write, if that is so; only from inside a block of the context.
  void saveAfterFailure();
  /// The same, for what is no part of a position's way: without a line in the log unless it fails.
  void saveQuietly();

  /// Called at the beginning of each save; to be set before the first use of the context.
  void setWillSave(std::function<void(platform::NSManagedObjectContext&)> receiver) { willSave_ = std::move(receiver); }
  /// Of the latest opening or save; absent once a save has succeeded.
  std::optional<std::string> lastError() const { return lastError_.get(); }
  /// What the store takes on the disk.
  std::uint64_t bytes();

 private:
  void openStore();
  void fail(const platform::Error& error);

  const platform::WriteRight::Patience patience_;
  std::once_flag directoryOnce_, modelOnce_, coordinatorOnce_, contextOnce_;
  std::filesystem::path directory_;
  std::shared_ptr<platform::NSManagedObjectModel> model_;
  std::shared_ptr<platform::NSPersistentStoreCoordinator> coordinator_;
  std::unique_ptr<platform::NSManagedObjectContext> context_;
  std::function<void(platform::NSManagedObjectContext&)> willSave_;
  platform::Guarded<std::optional<std::string>> lastError_;
};

}  // namespace tarvo
