#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/foundation/Text.h"
#include "platform/persistence/Store.h"
#include "platform/persistence/StoreSchema.h"

namespace tarvo::platform {
namespace {

/// The records tell where somebody was: nobody else may read them. SQLite gives its side files the same mode.
constexpr mode_t kOwnerOnly = 0600;

Error systemError(std::string_view what, const std::filesystem::path& file, int code) {
  Error error = storeError(StoreErrorCode::open, concat(what, ": ", std::strerror(code)), file);
  error.userInfo.emplace("NSPOSIXErrorDomain", code);
  return error;
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
  if (descriptor < 0) return systemError("The store file cannot be made", file, errno);
  ::close(descriptor);
  return std::nullopt;
}

/// SQLite falls back to other settings without an error.
std::optional<Error> useWriteAheadLog(Database& database) {
  {
    Execution mode(database, "PRAGMA journal_mode = WAL");
    const bool set = mode.step() && mode.text(0) == "wal";
    if (mode.failed()) return mode.error(StoreErrorCode::open, "Write-ahead logging could not be switched on");
    if (!set) return storeError(StoreErrorCode::open, "The store cannot use a write-ahead log", database.file());
  }
  // Pages that are asked for again: those of one batch of uploads and their indexes. The system keeps the others
  // anyway.
  if (auto error = database.run("PRAGMA cache_size = -1000", StoreErrorCode::open)) return error;
  // A commit survives the end of the process; the latest ones may be lost with the power, never the file.
  return database.run("PRAGMA synchronous = NORMAL", StoreErrorCode::open);
}

/// A file, folder or disk that cannot be written shows now and not with the first record.
std::optional<Error> checkWritable(Database& database) {
  if (database.isReadOnly())
    return storeError(StoreErrorCode::open, "The store file cannot be written", database.file());
  Transaction probe(database);
  return probe.begin();
}

}  // namespace

Result<std::unique_ptr<NSPersistentStoreCoordinator::Store>> NSPersistentStoreCoordinator::Store::open(
    const std::filesystem::path& file, const std::vector<const NSEntityDescription*>& entities,
    const std::string& modelHash) {
  if (auto error = ensureFile(file)) return *error;
  if (auto error = StoreSchema::checkHeader(file)) return *error;
  auto opened = Database::open(file);
  if (!opened) return opened.error();
  Database& database = **opened;
  auto uuid = StoreSchema(entities, modelHash).prepare(database);
  if (!uuid) return uuid.error();
  database.adopt();
  ::chmod(file.c_str(), kOwnerOnly);  // before SQLite makes its side files
  if (auto error = useWriteAheadLog(database)) return *error;
  if (auto error = checkWritable(database)) return *error;
  return std::unique_ptr<Store>(new Store(std::move(*opened), std::move(*uuid), entities));
}

}  // namespace tarvo::platform
