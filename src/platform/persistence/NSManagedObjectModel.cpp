#include "platform/persistence/NSManagedObjectModel.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

/// Objects note in one 64-bit mask which attributes are present, in another which have changed.
constexpr std::size_t kMostAttributes = 64;

constexpr std::array<std::pair<std::string_view, NSAttributeType>, 5> kTypes{{
    {"string", NSAttributeType::string},
    {"integer", NSAttributeType::integer64},
    {"double", NSAttributeType::floating},
    {"boolean", NSAttributeType::boolean},
    {"date", NSAttributeType::date},
}};

std::optional<NSAttributeType> typeNamed(std::string_view name) {
  for (const auto& [text, type] : kTypes)
    if (text == name) return type;
  return std::nullopt;
}

std::string_view nameOf(NSAttributeType wanted) {
  for (const auto& [text, type] : kTypes)
    if (type == wanted) return text;
  return "";
}

/// Names become tables and columns: a letter, then letters, digits and "_". What begins with "_" is the store's own.
bool isName(std::string_view text) {
  auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return !text.empty() && isLetter(text.front()) && std::all_of(text.begin(), text.end(), [&](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '_';
  });
}

std::optional<std::string> nameIn(const Dictionary& description) {
  auto name = findString(description, "name");
  return name && isName(*name) ? name : std::nullopt;
}

const Array* arrayIn(const Dictionary& description, std::string_view key) {
  const Value* value = find(description, key);
  return value ? value->asArray() : nullptr;
}

bool readAttributes(const Dictionary& description, NSEntityDescription& entity) {
  const Array* attributes = arrayIn(description, "attributes");
  if (!attributes || attributes->empty() || attributes->size() > kMostAttributes) return false;
  for (const Value& value : *attributes) {
    const Dictionary* attribute = value.asDictionary();
    if (!attribute) return false;
    auto name = nameIn(*attribute);
    auto type = typeNamed(findString(*attribute, "type").value_or(""));
    if (!name || !type || entity.attributeIndex(*name) >= 0) return false;
    entity.ofType[static_cast<std::size_t>(*type)] |= std::uint64_t{1} << entity.attributes.size();
    entity.attributes.push_back({*name, *type});
  }
  return true;
}

bool readIndexes(const Dictionary& description, NSEntityDescription& entity) {
  if (!find(description, "indexes")) return true;
  const Array* indexes = arrayIn(description, "indexes");
  if (!indexes) return false;
  for (const Value& value : *indexes) {
    const Dictionary* described = value.asDictionary();
    if (!described) return false;
    auto name = nameIn(*described);
    const Array* columns = arrayIn(*described, "attributes");
    if (!name || !columns || columns->empty()) return false;
    NSIndexDescription index{*name, {}, findString(*described, "condition").value_or("")};
    for (const Value& column : *columns) {
      const std::string* attribute = column.asString();
      if (!attribute || (*attribute != "_key" && entity.attributeIndex(*attribute) < 0)) return false;
      index.attributes.push_back(*attribute);
    }
    entity.indexes.push_back(std::move(index));
  }
  return true;
}

/// The index is as long as the list of rows that are not in step: empty, unless a row was deleted or a number repeated.
bool readCounter(const Dictionary& description, NSEntityDescription& entity) {
  if (!find(description, "counter")) return true;
  entity.counter = entity.attributeIndex(findString(description, "counter").value_or(""));
  if (!entity.isOfType(entity.counter, NSAttributeType::integer64)) return false;
  const std::string& name = entity.attributes[static_cast<std::size_t>(entity.counter)].name;
  entity.indexes.push_back({concat(entity.name, "_outOfStep"), {name}, entity.outOfStep()});
  return true;
}

std::unique_ptr<NSEntityDescription> readEntity(const Value& value) {
  const Dictionary* description = value.asDictionary();
  if (!description) return nullptr;
  auto name = nameIn(*description);
  if (!name) return nullptr;
  auto entity = std::make_unique<NSEntityDescription>();
  entity->name = *name;
  if (!readAttributes(*description, *entity) || !readIndexes(*description, *entity) ||
      !readCounter(*description, *entity))
    return nullptr;
  return entity;
}

/// All that shapes the tables, in one text.
void appendShape(std::string& out, const NSEntityDescription& entity) {
  out += concat("entity ", entity.name, "\n");
  for (const auto& attribute : entity.attributes) out += concat(" ", attribute.name, ":", nameOf(attribute.type), "\n");
  for (const auto& index : entity.indexes) {
    out += concat(" index ", index.name);
    for (const auto& attribute : index.attributes) out += concat(" ", attribute);
    out += concat(" where ", index.condition, "\n");
  }
}

/// FNV-1a, 64 bits, as 16 hexadecimal digits: it tells versions apart and guards against nothing.
std::string fingerprint(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325U;
  for (char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3U;
  }
  std::string digits;
  for (int shift = 60; shift >= 0; shift -= 4) digits += "0123456789abcdef"[(hash >> shift) & 15U];
  return digits;
}

}  // namespace

int NSEntityDescription::attributeIndex(std::string_view attribute) const {
  for (std::size_t i = 0; i < attributes.size(); ++i)
    if (attributes[i].name == attribute) return static_cast<int>(i);
  return -1;
}

std::string NSEntityDescription::inStep() const {
  return concat("\"", attributes[static_cast<std::size_t>(counter)].name, "\" = \"_key\" - 1");
}

std::string NSEntityDescription::outOfStep() const {
  return concat("\"", attributes[static_cast<std::size_t>(counter)].name, "\" IS NOT \"_key\" - 1");
}

std::shared_ptr<NSManagedObjectModel> NSManagedObjectModel::load(const ResourceURL& url) {
  auto parsed = parseJson(url.bytes);
  if (!parsed) return nullptr;
  const Dictionary* top = parsed->asDictionary();
  const Array* entities = top ? arrayIn(*top, "entities") : nullptr;
  if (!entities) return nullptr;

  auto model = std::make_shared<NSManagedObjectModel>();
  std::string shape;
  for (const Value& value : *entities) {
    auto entity = readEntity(value);
    if (!entity || model->entity(entity->name)) return nullptr;
    appendShape(shape, *entity);
    model->entities_.push_back(std::move(entity));
  }
  model->version_.hash = fingerprint(shape);
  if (const Value* number = find(*top, "version")) {
    if (!number->asInteger()) return nullptr;
    model->version_.number = *number->asInteger();
  }

  if (const Value* configurations = find(*top, "configurations")) {
    if (!configurations->asDictionary()) return nullptr;
    for (const auto& [name, members] : *configurations->asDictionary()) {
      if (!members.asArray()) return nullptr;
      auto& names = model->configurations_[name];
      for (const Value& member : *members.asArray()) {
        const std::string* entity = member.asString();
        if (!entity || !model->entity(*entity)) return nullptr;
        names.push_back(*entity);
      }
    }
  }
  return model;
}

void NSManagedObjectModel::setClass(std::string_view entity, NSManagedObjectFactory factory) {
  for (auto& known : entities_)
    if (known->name == entity) {
      known->factory = factory;
      return;
    }
  fatalError(concat("no entity named ", entity, " in the model"));
}

const NSEntityDescription* NSManagedObjectModel::entity(std::string_view name) const {
  for (const auto& entity : entities_)
    if (entity->name == name) return entity.get();
  return nullptr;
}

std::optional<std::vector<const NSEntityDescription*>> NSManagedObjectModel::configuration(
    std::string_view name) const {
  auto found = configurations_.find(name);
  if (found == configurations_.end()) return std::nullopt;
  std::vector<const NSEntityDescription*> entities;
  for (const std::string& member : found->second) entities.push_back(entity(member));
  return entities;
}

}  // namespace tarvo::platform
