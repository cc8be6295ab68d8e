#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/Store.h"
#include "platform/persistence/StoreSchema.h"
#include "platform/persistence/WriteRight.h"

namespace tarvo::platform {
namespace {

/// The records tell where somebody was: nobody else may read them. SQLite gives its side files the same mode.
constexpr mode_t kOwnerOnly = 0600;

Error systemError(std::string_view what, const std::filesystem::path& file, int code) {
  Error error = storeError(StoreErrorCode::open, concat(what, ": ", std::strerror(code)), file);
  error.userInfo.emplace("NSPOSIXErrorDomain", code);
  return error;
}

/// A creation takes moments; somebody who has the right to write for other reasons is not waited for longer.
constexpr std::chrono::seconds kLongestCreation{10};

/// Whether there is no store at the path yet, or one whose making was cut off.
bool isToBeMade(const std::filesystem::path& file) {
  struct stat status {};
  if (::stat(file.c_str(), &status) != 0) return errno == ENOENT;
  return S_ISREG(status.st_mode) && (status.st_size == 0 || StoreSchema::isHalfMade(file));
}

/// Makes an empty file where there is none.
std::optional<Error> ensureFile(const std::filesystem::path& file) {
  struct stat status {};
  if (::stat(file.c_str(), &status) == 0) {
    if (S_ISREG(status.st_mode)) return std::nullopt;
    return storeError(StoreErrorCode::open, "The store's path is not that of a file", file);
  }
  if (errno != ENOENT) return systemError("The store file cannot be reached", file, errno);
  const int descriptor = ::open(file.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, kOwnerOnly);
  if (descriptor < 0 && errno != EEXIST) return systemError("The store file cannot be made", file, errno);
  if (descriptor >= 0) ::close(descriptor);  // else another process was faster
  return std::nullopt;
}

/// SQLite undoes a transaction that was cut off when it reads the file for the first time.
void undoHalfMade(const std::filesystem::path& file) {
  if (auto database = Database::open(file))
    (void)(*database)->runOnce("SELECT count(*) FROM sqlite_schema", StoreErrorCode::open);
}

/// SQLite falls back to other settings without an error.
std::optional<Error> useWriteAheadLog(Database& database) {
  Execution mode(database, "PRAGMA journal_mode = WAL", Execution::Statement::once);
  const bool set = mode.step() && mode.text(0) == "wal";
  if (mode.failed()) return mode.error(StoreErrorCode::open, "Write-ahead logging could not be switched on");
  if (!set) return storeError(StoreErrorCode::open, "The store cannot use a write-ahead log", database.file());
  return std::nullopt;
}

std::optional<Error> setUp(Database& database) {
  // Pages that are asked for again: those of one batch of uploads and their indexes. The system keeps the others
  // anyway.
  if (auto error = database.runOnce("PRAGMA cache_size = -1000", StoreErrorCode::open)) return error;
  // A commit survives the end of the process; the latest ones may be lost with the power, never the file.
  return database.runOnce("PRAGMA synchronous = NORMAL", StoreErrorCode::open);
}

}  // namespace

Result<std::unique_ptr<NSPersistentStoreCoordinator::Store>> NSPersistentStoreCoordinator::Store::open(
    const std::filesystem::path& file, const std::vector<const NSEntityDescription*>& entities,
    const std::string& modelHash) {
  // Of several processes one makes the store, the others find it made. Without the lock SQLite's own transactions keep
  // them apart as well, but for the switch to write-ahead logging.
  FileLock making(WriteRight::lockFileOf(file));
  if (isToBeMade(file)) (void)making.lock(kLongestCreation, [&] { return !isToBeMade(file); });
  if (auto error = ensureFile(file)) return *error;
  if (StoreSchema::isHalfMade(file)) undoHalfMade(file);
  if (auto error = StoreSchema::checkHeader(file)) return *error;
  auto opened = Database::open(file);
  if (!opened) return opened.error();
  Database& database = **opened;
  auto uuid = StoreSchema(entities, modelHash).prepare(database);
  if (!uuid) return uuid.error();
  if (database.isReadOnly())
    return storeError(StoreErrorCode::open, "The store file cannot be written", database.file());
  if (making.isHeld()) {
    ::chmod(file.c_str(), kOwnerOnly);  // before SQLite makes its side files
    if (auto error = useWriteAheadLog(database)) return *error;
  }
  if (auto error = setUp(database)) return *error;
  database.watchFiles();
  return std::unique_ptr<Store>(new Store(std::move(*opened), std::move(*uuid), entities));
}

std::optional<Error> NSPersistentStoreCoordinator::Store::beginWriting() {
  ::chmod(database_->file().c_str(), kOwnerOnly);
  if (auto error = useWriteAheadLog(*database_)) return error;
  if (auto error = database_->checkpointOnClose()) return error;
  writes_ = true;  // no count or key is known yet: others may have written until now
  return std::nullopt;
}

}  // namespace tarvo::platform
