#include "platform/persistence/StoreSchema.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>
#include <map>

#include "platform/foundation/Encoding.h"
#include "platform/foundation/FaultPoint.h"
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

/// A commit writes whole pages, of which a position and its marks change a few bytes each: small pages wear out less
/// flash. Those of a store that is there stay as they are (docs/performance.md).
constexpr std::string_view kPageSize = "PRAGMA page_size = 1024";

/// Of a store that was made before models had one.
constexpr std::int64_t kFirstVersion = 1;

/// The number in the metadata; absent for one that makes no sense.
std::optional<std::int64_t> versionIn(const std::map<std::string, std::string, std::less<>>& metadata) {
  const auto found = metadata.find("modelVersion");
  if (found == metadata.end()) return kFirstVersion;
  std::int64_t number = 0;
  const std::string& text = found->second;
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), number);
  return status == std::errc{} && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

Result<bool> hasNoObjects(Database& database) {
  Execution count(database, "SELECT count(*) FROM sqlite_schema", Execution::Statement::once);
  if (!count.step()) return count.error(StoreErrorCode::open, "The store's schema cannot be read");
  return count.integer(0) == 0;
}

}  // namespace

StoreSchema::StoreSchema(std::vector<const NSEntityDescription*> entities, NSManagedObjectModel::Version version)
    : entities_(std::move(entities)), version_(std::move(version)) {
  for (const NSEntityDescription* entity : entities_)
    entityNames_ += concat(entityNames_.empty() ? "" : ",", entity->name);
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
  auto metadata = checkedMetadata(database);
  if (!metadata) return metadata.error();
  auto steps = stepsFrom(database);
  if (!steps) return steps.error();
  if (!isOlder(*metadata) && !steps->additions.empty())
    return storeError(StoreErrorCode::incompatibleSchema,
                      concat("The store's schema is not the model's, it lacks: ", steps->additions.front()),
                      database.file());
  for (const std::string& view : steps->views)
    if (auto error = database.runOnce(view, StoreErrorCode::open)) return *error;
  return (*metadata)["uuid"];
}

/// Before write-ahead logging is switched on: the header must be in the file itself once the transaction has ended.
std::optional<Error> StoreSchema::create(Database& database) const {
  if (auto error = database.runOnce(kPageSize, StoreErrorCode::open)) return error;
  auto transaction = Transaction::begin(database, Transaction::Kind::writing);
  if (!transaction) return transaction.error();
  auto isEmpty = hasNoObjects(database);
  if (!isEmpty) return isEmpty.error();
  if (!*isEmpty) return std::nullopt;  // another process was faster
  std::vector<std::string> statements{
      concat("PRAGMA application_id = ", kApplicationID),
      "CREATE TABLE \"_metadata\" (\"name\" TEXT PRIMARY KEY, \"value\" TEXT)",
  };
  for (const NSEntityDescription* entity : entities_) {
    statements.push_back(tableText(*entity));
    for (const auto& index : entity->indexes) statements.push_back(indexText(*entity, index));
  }
  for (const std::string& sql : statements)
    if (auto error = database.runOnce(sql, StoreErrorCode::open)) return error;
  faultPoint("store: tables made");
  const auto uuid = randomUuid();
  if (!uuid) return storeError(StoreErrorCode::open, "The system gives no random bytes for the store's UUID");
  if (auto error = writeMetadata(database, *uuid)) return error;
  return transaction->commit();
}

std::optional<Error> StoreSchema::writeMetadata(Database& database, std::string_view uuid) const {
  const std::string version = concat(version_.number);
  const std::array<std::pair<std::string_view, std::string_view>, 4> metadata{
      {{"uuid", uuid}, {"modelVersion", version}, {"modelHash", version_.hash}, {"entities", entityNames_}}};
  for (const auto& [name, value] : metadata) {
    Execution insert(database, "REPLACE INTO \"_metadata\" VALUES (?1, ?2)", Execution::Statement::once);
    insert.bind(1, name);
    insert.bind(2, value);
    insert.step();
    if (insert.failed()) return insert.error(StoreErrorCode::open, "The store's metadata cannot be written");
  }
  return std::nullopt;
}

bool StoreSchema::isOlder(const Metadata& metadata) const {
  return versionIn(metadata).value_or(version_.number) < version_.number;
}

Result<StoreSchema::Metadata> StoreSchema::checkedMetadata(Database& database) const {
  Metadata metadata;
  Execution rows(database, "SELECT \"name\", \"value\" FROM \"_metadata\"", Execution::Statement::once);
  while (rows.step()) metadata.emplace(rows.text(0), rows.text(1));
  if (rows.failed()) return rows.error(StoreErrorCode::incompatibleSchema, "The store's metadata cannot be read");
  const auto refusal = [&](StoreErrorCode code, std::string why) {
    return storeError(code, std::move(why), database.file());
  };
  if (metadata["uuid"].empty()) return refusal(StoreErrorCode::incompatibleSchema, "The store has no UUID");
  const auto number = versionIn(metadata);
  if (!number || *number > version_.number)
    return refusal(StoreErrorCode::incompatibleVersionHash,
                   concat("The store was made or brought up to date by a newer version of the library (model ",
                          metadata["modelVersion"], ", known here ", version_.number, ")"));
  if (isOlder(metadata)) {
    // Each of its entities must still be there; what has become of them is looked at in their tables.
    std::string_view names = metadata["entities"];
    while (!names.empty()) {
      const std::string_view name = names.substr(0, names.find(','));
      const auto isNamed = [&](const NSEntityDescription* entity) { return entity->name == name; };
      if (std::none_of(entities_.begin(), entities_.end(), isNamed))
        return refusal(StoreErrorCode::incompatibleSchema, concat("The store's ", name, " is not in the model"));
      names.remove_prefix(std::min(names.size(), name.size() + 1));
    }
    return metadata;
  }
  if (metadata["modelHash"] != version_.hash)
    return refusal(StoreErrorCode::incompatibleVersionHash, "The store was made with another model");
  if (metadata["entities"] != entityNames_)
    return refusal(StoreErrorCode::incompatibleSchema, "The store holds other entities");
  return metadata;
}

Result<StoreSchema::Steps> StoreSchema::stepsFrom(Database& database) const {
  Steps steps;
  for (const NSEntityDescription* entity : entities_) {
    if (auto error = addTableSteps(database, *entity, steps)) return *error;
    if (auto error = addIndexSteps(database, *entity, steps)) return *error;
  }
  return steps;
}

std::optional<Error> StoreSchema::addTableSteps(Database& database, const NSEntityDescription& entity, Steps& steps) {
  std::map<std::string, std::string, std::less<>> columns;
  {
    Execution rows(database, "SELECT name, type FROM pragma_table_info(?1, 'main')", Execution::Statement::once);
    rows.bind(1, entity.name);
    while (rows.step()) columns.emplace(rows.text(0), rows.text(1));
    if (rows.failed()) return rows.error(StoreErrorCode::open, "The store's schema cannot be read");
  }
  const bool isThere = !columns.empty();
  if (!isThere) steps.additions.push_back(tableText(entity));
  const auto refusal = [&](std::string_view column) {
    return storeError(StoreErrorCode::incompatibleSchema,
                      concat("The store's ", entity.name, ".", column, " is not as the model's"), database.file());
  };
  if (isThere && columns.erase("_key") == 0) return refusal("_key");
  std::string missing;
  for (const auto& attribute : entity.attributes) {
    const auto column = columns.find(attribute.name);
    if (column != columns.end() && column->second == columnType(attribute.type)) {
      columns.erase(column);
      continue;
    }
    if (column != columns.end()) return refusal(attribute.name);
    missing += concat(", NULL AS \"", attribute.name, "\"");
    if (isThere)
      steps.additions.push_back(
          concat("ALTER TABLE \"", entity.name, "\" ADD COLUMN \"", attribute.name, "\" ", columnType(attribute.type)));
  }
  if (!columns.empty()) return refusal(columns.begin()->first);
  if (missing.empty()) return std::nullopt;
  steps.views.push_back(concat("CREATE TEMP VIEW \"", entity.name, "\" AS SELECT ", isThere ? "*" : "NULL AS \"_key\"",
                               missing, isThere ? concat(" FROM main.\"", entity.name, "\"") : " WHERE 0"));
  return std::nullopt;
}

std::optional<Error> StoreSchema::addIndexSteps(Database& database, const NSEntityDescription& entity, Steps& steps) {
  std::vector<std::string> wanted;
  for (const auto& index : entity.indexes) wanted.push_back(indexText(entity, index));
  Execution rows(database,
                 "SELECT name, sql, type FROM main.sqlite_schema "
                 "WHERE type IN ('index', 'trigger') AND tbl_name = ?1 AND sql IS NOT NULL",
                 Execution::Statement::once);
  rows.bind(1, entity.name);
  while (rows.step())
    if (std::erase(wanted, rows.text(1)) == 0)
      steps.removals.push_back(concat("DROP ", rows.text(2), " \"", rows.text(0), "\""));
  if (rows.failed()) return rows.error(StoreErrorCode::open, "The store's schema cannot be read");
  std::move(wanted.begin(), wanted.end(), std::back_inserter(steps.additions));
  return std::nullopt;
}

std::optional<Error> StoreSchema::bringUpToDate(Database& database) const {
  // Anew: another process may have done it, or gone further, since the file was opened.
  auto metadata = checkedMetadata(database);
  if (!metadata) return metadata.error();
  if (!isOlder(*metadata)) return std::nullopt;
  auto steps = stepsFrom(database);
  if (!steps) return steps.error();
  std::vector<std::string> statements;
  for (const NSEntityDescription* entity : entities_)
    statements.push_back(concat("DROP VIEW IF EXISTS temp.\"", entity->name, "\""));
  for (auto* part : {&steps->removals, &steps->additions})
    std::move(part->begin(), part->end(), std::back_inserter(statements));
  // What the first version kept to know its numbers of rows.
  statements.push_back("DELETE FROM \"_metadata\" WHERE name LIKE '%.rows'");
  auto transaction = Transaction::begin(database, Transaction::Kind::writing);
  if (!transaction) return transaction.error();
  for (const std::string& sql : statements)
    if (auto error = database.runOnce(sql, StoreErrorCode::save)) return error;
  if (auto error = writeMetadata(database, (*metadata)["uuid"])) return error;
  return transaction->commit();
}

}  // namespace tarvo::platform
