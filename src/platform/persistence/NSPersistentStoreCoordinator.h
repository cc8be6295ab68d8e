#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"
#include "platform/persistence/NSManagedObjectModel.h"
#include "platform/persistence/WriteRight.h"

namespace tarvo::platform {

inline constexpr const char* NSSQLiteStoreType = "SQLite";

/// Joins a model to the one store file that holds its records.
///
/// Without a store, fetches, counts and saves through a context give an error.
///
/// One process at a time writes to a store. A coordinator that only reads never waits and changes nothing; the first
/// change claims the right to write, which is kept to the end of the process. While another process has it there is
/// as good as no store here, and each later claim looks whether the other has gone. The same, but for good, once the
/// file was removed, replaced or cut, and in a forked child. The first error of an operation afterwards names the
/// reason.
/// Threads: adding a store before use; then only through the context's queue.
class NSPersistentStoreCoordinator {
 public:
  explicit NSPersistentStoreCoordinator(std::shared_ptr<NSManagedObjectModel> model,
                                        WriteRight::Patience patience = {});
  ~NSPersistentStoreCoordinator();

  /// Opens (or creates, when the file is absent or empty) the SQLite file and reads its header, schema and metadata,
  /// so that a file that is not a store of this model is refused here. Changes, renames and deletes nothing: a store of
  /// an earlier version of the model is brought up to date by the first claim of the right to write.
  /// Absent on success.
  std::optional<Error> addPersistentStore(std::string_view type, std::string_view configuration,
                                          const std::filesystem::path& url);
  /// Whether there is a store that can be used now.
  bool hasStore();
  /// Takes the right to write unless it is held; absent on success. May wait, see WriteRight; `wait` stands for this
  /// one claim.
  std::optional<Error> claim(std::optional<WriteRight::Span> wait = {});
  /// Whether this process has the right to write.
  bool writes() const { return standing_ == Standing::writes; }
  /// Closes the store's file, has `between` remove it, and makes a new one, also when that fails. Needs the right to
  /// write, which stays. The first failure of all steps; without a new file there is no store from here on.
  std::optional<Error> renewStore(const std::function<std::optional<Error>()>& between);
  const NSManagedObjectModel& model() const { return *model_; }
  /// Moves what the write-ahead log holds into the database file; nothing to do for who does not write.
  std::optional<Error> checkpoint();
  /// Waits until the disk holds what was saved, so that no power cut takes it; nothing to do for who does not write.
  std::optional<Error> flush();

  /// Why a store that was opened cannot be used now, in words, however often it is asked; absent when it can, and when
  /// none was opened.
  std::optional<std::string> obstacle();

  /// What the store at that path takes on the disk, its write-ahead log included; 0 where there is none. Threads: any.
  static std::uint64_t bytesOnDisk(const std::filesystem::path& url);

  struct Store;
  /// A null pointer while there is none to be used; `whyNoStore` then tells the reason, once, to who hands it on.
  Store* store();
  Error whyNoStore(std::string_view operation);

 private:
  enum class Standing { reads, writes, keptOut };

  std::shared_ptr<NSManagedObjectModel> model_;
  const WriteRight::Patience patience_;
  const unsigned forks_;       ///< that led to the process of the coordinator
  std::string configuration_;  ///< of the store
  std::unique_ptr<Store> store_;
  std::unique_ptr<WriteRight> right_;
  Standing standing_ = Standing::reads;
  std::string keptOutBecause_;
  std::optional<Error> untold_;  ///< why this process is kept out, until somebody was told
};

}  // namespace tarvo::platform
