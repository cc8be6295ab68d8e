#include "platform/persistence/StoreSchema.h"

#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <random>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// "Tarv"
constexpr std::uint32_t kApplicationID = 0x54617276;
constexpr std::string_view kMagic{"SQLite format 3\0", 16};
constexpr std::string_view kJournalMagic{"\xd9\xd5\x05\xf9\x20\xa1\x63\xd7", 8};
constexpr std::size_t kHeaderSize = 100;
constexpr std::size_t kApplicationIDOffset = 68;

std::string_view columnType(NSAttributeType type) {
  switch (type) {
    case NSAttributeType::string:
      return "TEXT";
    case NSAttributeType::integer64:
    case NSAttributeType::boolean:
      return "INTEGER";
    case NSAttributeType::floating:
    case NSAttributeType::date:
      return "REAL";
  }
  return "";
}

std::string tableText(const NSEntityDescription& entity) {
  std::string sql = concat("CREATE TABLE \"", entity.name, "\" (\"_key\" INTEGER PRIMARY KEY");
  for (const auto& attribute : entity.attributes)
    sql += concat(", \"", attribute.name, "\" ", columnType(attribute.type));
  return sql + ")";
}

std::string indexText(const NSEntityDescription& entity, const NSIndexDescription& index) {
  std::string sql = concat("CREATE INDEX \"", index.name, "\" ON \"", entity.name, "\" (");
  for (std::size_t i = 0; i < index.attributes.size(); ++i)
    sql += concat(i > 0 ? ", \"" : "\"", index.attributes[i], "\"");
  sql += ")";
  if (!index.condition.empty()) sql += concat(" WHERE ", index.condition);
  return sql;
}

std::string newUUID() {
  std::random_device random;
  std::array<std::uint8_t, 16> bytes{};
  for (auto& byte : bytes) byte = static_cast<std::uint8_t>(random());
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += "0123456789ABCDEF"[bytes[i] >> 4];
    text += "0123456789ABCDEF"[bytes[i] & 0x0FU];
  }
  return text;
}

Result<bool> hasNoObjects(Database& database) {
  Execution count(database, "SELECT count(*) FROM sqlite_schema", Execution::Statement::once);
  if (!count.step()) return count.error(StoreErrorCode::open, "The store's schema cannot be read");
  return count.integer(0) == 0;
}

}  // namespace

StoreSchema::StoreSchema(const std::vector<const NSEntityDescription*>& entities, std::string modelHash)
    : modelHash_(std::move(modelHash)) {
  objects_.emplace_back("_metadata", "CREATE TABLE \"_metadata\" (\"name\" TEXT PRIMARY KEY, \"value\" TEXT)");
  for (const NSEntityDescription* entity : entities) {
    entityNames_ += concat(entityNames_.empty() ? "" : ",", entity->name);
    objects_.emplace_back(entity->name, tableText(*entity));
    for (const auto& index : entity->indexes) objects_.emplace_back(index.name, indexText(*entity, index));
  }
}

std::optional<Error> StoreSchema::checkHeader(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::array<char, kHeaderSize> header{};
  if (!in) return storeError(StoreErrorCode::fileReadUnknown, "The store file cannot be read", file);
  in.read(header.data(), header.size());
  if (in.bad()) return storeError(StoreErrorCode::fileReadUnknown, "The store file cannot be read", file);
  if (in.gcount() == 0) return std::nullopt;
  if (static_cast<std::size_t>(in.gcount()) < header.size() || std::string_view(header.data(), kMagic.size()) != kMagic)
    return storeError(StoreErrorCode::fileReadCorrupt, "The file is not a database", file);
  std::uint32_t id = 0;
  for (std::size_t i = 0; i < 4; ++i) id = id << 8 | static_cast<unsigned char>(header[kApplicationIDOffset + i]);
  if (id == kApplicationID) return std::nullopt;
  return storeError(StoreErrorCode::incompatibleSchema, "The file is the database of another application", file);
}

bool StoreSchema::isHalfMade(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const int first = in.get();
  if (!in || first == kMagic.front()) return false;
  // The journal's own header: magic, number of records, nonce, and how many pages the file had before.
  std::array<char, kJournalMagic.size() + 12> journal{};
  std::ifstream beside(file.native() + "-journal", std::ios::binary);
  if (!beside.read(journal.data(), journal.size())) return false;
  const std::string_view header(journal.data(), journal.size());
  return header.starts_with(kJournalMagic) && header.ends_with(std::string_view("\0\0\0\0", 4));
}

Result<std::string> StoreSchema::prepare(Database& database) const {
  auto isEmpty = hasNoObjects(database);
  if (!isEmpty) return isEmpty.error();
  if (*isEmpty)
    if (auto error = create(database)) return *error;
  std::string uuid;
  if (auto error = checkMetadata(database, uuid)) return *error;
  if (auto error = checkTables(database)) return *error;
  return uuid;
}

/// A commit writes whole pages, of which a position and its marks change a few bytes each: the smaller, the less flash
/// is worn. Below this size rows no longer fit well (docs/performance.md).
constexpr std::string_view kPageSize = "PRAGMA page_size = 1024";

/// Before write-ahead logging is switched on: the header must be in the file itself once the transaction has ended.
std::optional<Error> StoreSchema::create(Database& database) const {
  if (auto error = database.runOnce(kPageSize, StoreErrorCode::open)) return error;  // counts for an empty file only
  Transaction transaction(database);
  if (auto error = transaction.begin()) return error;
  auto isEmpty = hasNoObjects(database);
  if (!isEmpty) return isEmpty.error();
  if (!*isEmpty) return std::nullopt;  // another process was faster
  const std::string header = concat("PRAGMA application_id = ", kApplicationID);
  if (auto error = database.runOnce(header, StoreErrorCode::open)) return error;
  for (const auto& [name, sql] : objects_)
    if (auto error = database.runOnce(sql, StoreErrorCode::open)) return error;
  const std::string uuid = newUUID();
  const std::array<std::pair<std::string_view, std::string_view>, 3> metadata{
      {{"uuid", uuid}, {"modelHash", modelHash_}, {"entities", entityNames_}}};
  for (const auto& [name, value] : metadata) {
    Execution insert(database, "INSERT INTO \"_metadata\" VALUES (?1, ?2)", Execution::Statement::once);
    insert.bind(1, name);
    insert.bind(2, value);
    insert.step();
    if (insert.failed()) return insert.error(StoreErrorCode::open, "The store's metadata cannot be written");
  }
  return transaction.commit();
}

std::optional<Error> StoreSchema::checkMetadata(Database& database, std::string& uuid) const {
  std::map<std::string, std::string, std::less<>> metadata;
  Execution rows(database, "SELECT \"name\", \"value\" FROM \"_metadata\"", Execution::Statement::once);
  while (rows.step()) metadata.emplace(rows.text(0), rows.text(1));
  if (rows.failed()) return rows.error(StoreErrorCode::incompatibleSchema, "The store's metadata cannot be read");
  uuid = metadata["uuid"];
  if (uuid.empty()) return storeError(StoreErrorCode::incompatibleSchema, "The store has no UUID", database.file());
  if (metadata["modelHash"] != modelHash_)
    return storeError(StoreErrorCode::incompatibleVersionHash, "The store was made with another model",
                      database.file());
  if (metadata["entities"] != entityNames_)
    return storeError(StoreErrorCode::incompatibleSchema, "The store holds other entities", database.file());
  return std::nullopt;
}

std::optional<Error> StoreSchema::checkTables(Database& database) const {
  std::map<std::string, std::string, std::less<>> found;
  Execution rows(database, "SELECT name, sql FROM sqlite_schema WHERE sql IS NOT NULL", Execution::Statement::once);
  while (rows.step()) found.emplace(rows.text(0), rows.text(1));
  if (rows.failed()) return rows.error(StoreErrorCode::open, "The store's schema cannot be read");
  for (const auto& [name, sql] : objects_)
    if (found[name] != sql)
      return storeError(StoreErrorCode::incompatibleSchema, concat("The store's ", name, " is not as the model's"),
                        database.file());
  return std::nullopt;
}

}  // namespace tarvo::platform
