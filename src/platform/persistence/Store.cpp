#include "platform/persistence/Store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <iterator>

#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"
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
  // What goes is overwritten, whatever the system's SQLite was built to do.
  if (auto error = database.runOnce("PRAGMA secure_delete = ON", StoreErrorCode::open)) return error;
  // A commit survives the end of the process; the latest ones may be lost with the power, never the file.
  return database.runOnce("PRAGMA synchronous = NORMAL", StoreErrorCode::open);
}

std::string insertText(const NSEntityDescription& entity) {
  std::string columns;
  std::string parameters;
  for (std::size_t i = 0; i < entity.attributes.size(); ++i) {
    columns += concat(i > 0 ? ", \"" : "\"", entity.attributes[i].name, "\"");
    parameters += concat(i > 0 ? ", ?" : "?", i + 1);
  }
  return concat("INSERT INTO \"", entity.name, "\" (", columns, ", \"_key\") VALUES (", parameters, ", ?)");
}

/// Only the changed columns, so that SQLite leaves the indexes of the others alone.
std::string updateText(const NSEntityDescription& entity, std::uint64_t changed, bool isRange) {
  std::string sql = concat("UPDATE \"", entity.name, "\" SET ");
  std::string_view separator = "\"";
  for (std::uint64_t rest = changed; rest != 0; rest &= rest - 1) {
    sql += concat(separator, entity.attributes[static_cast<std::size_t>(std::countr_zero(rest))].name, "\" = ?");
    separator = ", \"";
  }
  return sql + (isRange ? " WHERE \"_key\" BETWEEN ? AND ?" : " WHERE \"_key\" = ?");
}

using Changed = EntityObjects::Pending::const_iterator;

/// Ends the run of rows from `first` on whose keys follow each other without a gap and that get the same values.
Changed endOfRun(Changed first, Changed end) {
  std::int64_t key = first->first;
  Changed next = std::next(first);
  while (next != end && next->first == ++key && EntityObjects::changesEqually(*next->second, *first->second)) ++next;
  return next;
}

/// Smaller tables are counted: that takes milliseconds, even when nothing of the file is in memory.
constexpr std::int64_t kRowsWorthKeeping = 10000;

/// Whether a table that is to have `more` rows needs an entry, or another one than it has.
bool isEntryDue(const NSPersistentStoreCoordinator::Store::Keys& keys, std::int64_t more = 0) {
  return keys.inEntry ? *keys.inEntry != keys.missing : keys.rows() + more >= kRowsWorthKeeping;
}

/// The numbers of an entry; 0 for what it lacks.
std::array<std::int64_t, 3> numbersIn(std::string_view entry) {
  std::array<std::int64_t, 3> numbers{};
  const char* next = entry.data();
  const char* const end = next + entry.size();
  for (std::int64_t& number : numbers) {
    while (next != end && *next == ' ') ++next;
    next = std::from_chars(next, end, number).ptr;
  }
  return numbers;
}

std::string keptName(const NSEntityDescription& entity) { return concat(entity.name, ".keys"); }

Error unknownEntity(const NSEntityDescription& entity) {
  return storeError(StoreErrorCode::coreData, concat("The store does not hold ", entity.name, " records"));
}

}  // namespace

Result<std::unique_ptr<NSPersistentStoreCoordinator::Store>> NSPersistentStoreCoordinator::Store::open(
    const std::filesystem::path& file, const std::vector<const NSEntityDescription*>& entities,
    const NSManagedObjectModel::Version& version, bool hasRight) {
  // Of several processes one makes the store, the others find it made. Without the lock SQLite's own transactions keep
  // them apart as well, but for the switch to write-ahead logging.
  FileLock making(WriteRight::lockFileOf(file));
  if (!hasRight && isToBeMade(file)) (void)making.lock(kLongestCreation, [&] { return !isToBeMade(file); });
  if (auto error = ensureFile(file)) return *error;
  faultPoint("store: empty file made");
  if (StoreSchema::isHalfMade(file)) undoHalfMade(file);
  if (auto error = StoreSchema::checkHeader(file)) return *error;
  auto opened = Database::open(file);
  if (!opened) return opened.error();
  Database& database = **opened;
  StoreSchema schema(entities, version);
  auto uuid = schema.prepare(database);
  if (!uuid) return uuid.error();
  faultPoint("store: schema there");
  if (database.isReadOnly())
    return storeError(StoreErrorCode::open, "The store file cannot be written", database.file());
  if (hasRight || making.isHeld()) {
    ::chmod(file.c_str(), kOwnerOnly);  // before SQLite makes its side files
    if (auto error = useWriteAheadLog(database)) return *error;
  }
  faultPoint("store: log switched on");
  if (auto error = setUp(database)) return *error;
  database.watchFiles();
  return std::unique_ptr<Store>(new Store(std::move(*opened), std::move(*uuid), entities, std::move(schema)));
}

std::optional<Error> NSPersistentStoreCoordinator::Store::beginWriting() {
  ::chmod(database_->file().c_str(), kOwnerOnly);
  if (auto error = useWriteAheadLog(*database_)) return error;
  faultPoint("store: right to write taken");
  if (auto error = schema_.bringUpToDate(*database_)) return error;
  if (auto error = database_->checkpointOnClose()) return error;
  writes_ = true;  // no count or key is known yet: others may have written until now
  return std::nullopt;
}

NSPersistentStoreCoordinator::Store::Store(std::unique_ptr<Database> database, std::string uuid,
                                           const std::vector<const NSEntityDescription*>& entities, StoreSchema schema)
    : database_(std::move(database)),
      uuid_(std::make_shared<const std::string>(std::move(uuid))),
      schema_(std::move(schema)) {
  for (const NSEntityDescription* entity : entities) tables_.push_back({entity, insertText(*entity), std::nullopt, 0});
}

NSPersistentStoreCoordinator::Store::Table* NSPersistentStoreCoordinator::Store::table(
    const NSEntityDescription& entity) {
  for (Table& table : tables_)
    if (table.entity == &entity) return &table;
  return nullptr;
}

Result<std::int64_t> NSPersistentStoreCoordinator::Store::rowCount(const NSEntityDescription& entity) {
  Table* known = table(entity);
  if (!known) return unknownEntity(entity);
  auto keys = keysOf(*known);
  if (!keys) return keys.error();
  return keys->rows();
}

Result<std::int64_t> NSPersistentStoreCoordinator::Store::removedRows(const NSEntityDescription& entity) {
  Table* known = table(entity);
  if (!known) return unknownEntity(entity);
  auto keys = keysOf(*known);
  if (!keys) return keys.error();
  return keys->removed;
}

Result<std::uint64_t> NSPersistentStoreCoordinator::Store::bytesInUse() {
  std::array<std::int64_t, 3> pragmas{};
  std::size_t next = 0;
  for (const char* pragma : {"PRAGMA page_count", "PRAGMA freelist_count", "PRAGMA page_size"}) {
    Execution row(*database_, pragma);
    if (!row.step()) return row.error(StoreErrorCode::operation, "The store's size could not be read");
    pragmas[next++] = row.integer(0);
  }
  return static_cast<std::uint64_t>((pragmas[0] - pragmas[1]) * pragmas[2]);
}

Result<NSPersistentStoreCoordinator::Store::Keys> NSPersistentStoreCoordinator::Store::keysOf(Table& table) {
  if (table.keys) return *table.keys;
  auto keys = readKeys(table);
  if (keys && writes_) table.keys = *keys;
  return keys;
}

Result<NSPersistentStoreCoordinator::Store::Keys> NSPersistentStoreCoordinator::Store::readKeys(const Table& table) {
  constexpr std::string_view kFailure = "The rows could not be counted";
  const std::string& name = table.entity->name;
  const std::string entry = keptName(*table.entity);
  // One statement is one view of the file, whatever another process writes meanwhile.
  Execution row(*database_,
                concat("SELECT (SELECT max(\"_key\") FROM \"", name, "\"), (SELECT min(\"_key\") FROM \"", name,
                       "\"), value FROM (SELECT ?1 AS entry) LEFT JOIN \"_metadata\" ON name = entry"));
  row.bind(1, entry);
  if (!row.step()) return row.error(StoreErrorCode::operation, kFailure);
  const std::int64_t highest = row.integer(0);
  const auto [last, missing, removed] = numbersIn(row.text(2));
  Keys keys{std::max({highest, last, table.lastGiven}), missing, removed, std::nullopt};
  if (!row.cell(2).isNull()) keys.inEntry = keys.missing;
  // Another program that has deleted the oldest rows leaves fewer keys than there should be rows.
  const std::int64_t most = row.cell(0).isNull() ? 0 : highest - row.integer(1) + 1;
  if (keys.inEntry && keys.missing >= 0 && keys.rows() >= 0 && keys.rows() <= most) return keys;
  Execution all(*database_, concat("SELECT count(*) FROM \"", name, "\""));
  if (!all.step()) return all.error(StoreErrorCode::operation, kFailure);
  keys.missing = keys.last - all.integer(0);
  return keys;
}

std::optional<Error> NSPersistentStoreCoordinator::Store::keep(const Table& table, Keys& keys) {
  const std::string removed = keys.removed > 0 ? concat(" ", keys.removed) : "";
  auto error = writeMetadata(keptName(*table.entity), concat(keys.last, " ", keys.missing, removed));
  if (!error) keys.inEntry = keys.missing;
  return error;
}

std::optional<Error> NSPersistentStoreCoordinator::Store::writeMetadata(std::string_view name, std::string_view value) {
  // In its place, which leaves the index of the names alone, and of a long text all pages that stay the same.
  Execution row(*database_,
                "INSERT INTO \"_metadata\" VALUES (?1, ?2) ON CONFLICT(\"name\") DO UPDATE SET \"value\" = ?2");
  row.bind(1, name);
  row.bind(2, value);
  row.step();
  if (row.failed()) return row.error(StoreErrorCode::save, "The store's metadata could not be written");
  return std::nullopt;
}

Result<std::optional<std::string>> NSPersistentStoreCoordinator::Store::metadata(std::string_view name) {
  Execution row(*database_, "SELECT value FROM \"_metadata\" WHERE name = ?1");
  row.bind(1, name);
  std::optional<std::string> value;
  if (row.step()) value = row.text(0);
  if (row.failed()) return row.error(StoreErrorCode::operation, "The store's metadata could not be read");
  return value;
}

Result<std::int64_t> NSPersistentStoreCoordinator::Store::matchingRows(const NSEntityDescription& entity,
                                                                       const FetchPlan& plan) {
  if (!table(entity)) return unknownEntity(entity);
  Execution count(*database_, concat("SELECT count(*) FROM \"", entity.name, "\"", plan.whereClause()));
  plan.bind(count);
  if (!count.step()) return count.error(StoreErrorCode::operation, "The rows could not be counted");
  return count.integer(0);
}

Result<bool> NSPersistentStoreCoordinator::Store::rowMatches(const NSEntityDescription& entity, const FetchPlan& plan,
                                                             std::int64_t key) {
  Execution row(*database_, concat("SELECT 1 FROM \"", entity.name, "\"", plan.whereClause(), " AND \"_key\" = ?"));
  row.bind(plan.bind(row), key);  // a bare "?" takes the number after the highest before it
  const bool found = row.step();
  if (row.failed()) return row.error(StoreErrorCode::operation, "A row could not be read");
  return found;
}

bool NSPersistentStoreCoordinator::Store::needsTransaction(const NSEntityDescription& entity,
                                                           const EntityObjects::Portion& portion) {
  if (portion.size() > 1 || portion.deleted > 0) return true;
  const Table* known = table(entity);
  return portion.inserted > 0 && known && known->keys && isEntryDue(*known->keys, 1);
}

std::optional<Error> NSPersistentStoreCoordinator::Store::write(const EntityObjects& objects,
                                                                const EntityObjects::Portion& portion,
                                                                Receipt& receipt) {
  Table* known = table(objects.entity());
  if (!known) return unknownEntity(objects.entity());
  if (auto error = updateRows(*known, objects, portion.changed)) return error;
  if (portion.inserted + portion.deleted == 0) return std::nullopt;
  auto keys = keysOf(*known);
  if (!keys) return keys.error();
  receipt.firstKey = keys->last + 1;
  if (auto error = insertRows(*known, objects, portion.inserted, *keys)) return error;
  if (portion.deleted > 0)
    if (auto error = deleteRows(*known, objects, *keys)) return error;
  if (isEntryDue(*keys) && database_->inTransaction())
    if (auto error = keep(*known, *keys)) return error;
  receipt.keys = *keys;
  return std::nullopt;
}

std::optional<Error> NSPersistentStoreCoordinator::Store::insertRows(Table& table, const EntityObjects& objects,
                                                                     std::size_t rows, Keys& keys) {
  const int count = static_cast<int>(table.entity->attributes.size());
  for (auto next = objects.inserted().begin(); rows > 0; --rows, ++next) {
    Execution insert(*database_, table.insert);
    for (int i = 0; i < count; ++i) EntityObjects::bind(insert, i + 1, *next->second, i);
    insert.bind(count + 1, ++keys.last);
    insert.step();
    if (!insert.failed()) continue;
    table.keys.reset();  // another program may have used the key: the next try looks again
    return insert.error(StoreErrorCode::save, "A record could not be inserted");
  }
  return std::nullopt;
}

/// A thousand marks are one statement: SQLite then goes through the rows at half the cost of finding each.
std::optional<Error> NSPersistentStoreCoordinator::Store::updateRows(const Table& table, const EntityObjects& objects,
                                                                     std::size_t rows) {
  const auto end = std::next(objects.changed().begin(), static_cast<std::ptrdiff_t>(rows));
  for (auto first = objects.changed().begin(); first != end;) {
    const auto next = endOfRun(first, end);
    const auto& [firstKey, object] = *first;
    const std::int64_t lastKey = std::prev(next)->first;
    const std::uint64_t mask = EntityObjects::changeMask(*object);
    Execution update(*database_, updateText(*table.entity, mask, lastKey != firstKey));
    int parameter = 0;
    for (std::uint64_t rest = mask; rest != 0; rest &= rest - 1)
      EntityObjects::bind(update, ++parameter, *object, std::countr_zero(rest));
    update.bind(++parameter, firstKey);
    if (lastKey != firstKey) update.bind(++parameter, lastKey);
    update.step();
    if (update.failed()) return update.error(StoreErrorCode::save, "A record could not be updated");
    first = next;
  }
  return std::nullopt;
}

std::optional<Error> NSPersistentStoreCoordinator::Store::deleteRows(const Table& table, const EntityObjects& objects,
                                                                     Keys& keys) {
  const std::string sql = concat("DELETE FROM \"", table.entity->name, "\" WHERE \"_key\" = ?1");
  for (const auto& [key, object] : objects.deleted()) {
    Execution removal(*database_, sql);
    removal.bind(1, key);
    removal.step();
    if (removal.failed()) return removal.error(StoreErrorCode::save, "A record could not be deleted");
    keys.missing += database_->rowsChanged();
  }
  return std::nullopt;
}

std::optional<Error> NSPersistentStoreCoordinator::Store::removeRows(const NSEntityDescription& entity,
                                                                     const std::vector<std::int64_t>& keys,
                                                                     Receipt& receipt) {
  Table* known = table(entity);
  if (!known) return unknownEntity(entity);
  auto after = keysOf(*known);
  if (!after) return after.error();
  const std::string sql = concat("DELETE FROM \"", entity.name, "\" WHERE \"_key\" BETWEEN ?1 AND ?2");
  for (auto first = keys.begin(); first != keys.end();) {
    auto last = first;
    while (std::next(last) != keys.end() && *std::next(last) == *last + 1) ++last;
    Execution removal(*database_, sql);
    removal.bind(1, *first);
    removal.bind(2, *last);
    removal.step();
    if (removal.failed()) return removal.error(StoreErrorCode::save, "Records could not be removed");
    after->missing += database_->rowsChanged();
    after->removed += database_->rowsChanged();
    first = std::next(last);
  }
  if (auto error = keep(*known, *after)) return error;
  receipt.keys = *after;
  return std::nullopt;
}

void NSPersistentStoreCoordinator::Store::didCommit(const NSEntityDescription& entity, const Receipt& receipt) {
  Table* known = table(entity);
  if (!known || !receipt.keys) return;
  known->keys = receipt.keys;
  known->lastGiven = receipt.keys->last;
}

}  // namespace tarvo::platform
