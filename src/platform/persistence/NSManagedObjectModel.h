#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Bundle.h"

namespace tarvo::platform {

class NSManagedObject;
struct NSEntityDescription;

enum class NSAttributeType { string, integer64, floating, boolean, date };

struct NSAttributeDescription {
  std::string name;
  NSAttributeType type;
};

/// An index of the entity's table: columns in order, and an optional condition ("unsent = 1 AND …"). A column may be
/// "_key", which each index ends with by itself: to sort by it before further columns.
struct NSIndexDescription {
  std::string name;
  std::vector<std::string> attributes;
  std::string condition;
};

using NSManagedObjectFactory = std::shared_ptr<NSManagedObject> (*)(const NSEntityDescription&);

/// One kind of record. Every attribute is optional: absent until set.
struct NSEntityDescription {
  std::string name;
  std::vector<NSAttributeDescription> attributes;
  std::array<std::uint64_t, 5> ofType{};  ///< for each type, bit i: attribute i is of it
  std::vector<NSIndexDescription> indexes;
  /// The attribute that counts the rows, or -1. A row's counter is as a rule its key less one: the row is in step, and
  /// found and sorted by its key, so that no index of all rows is written. The others are in an index of their own.
  int counter = -1;
  NSManagedObjectFactory factory = nullptr;  ///< makes objects of the entity's class; null: plain objects

  bool isOfType(int attribute, NSAttributeType type) const {
    return static_cast<unsigned>(attribute) < 64 && (ofType[static_cast<std::size_t>(type)] >> attribute & 1U) != 0;
  }
  /// Position in `attributes`, or -1.
  int attributeIndex(std::string_view attribute) const;
  /// SQL: whether a row is in step, or is not. Each row is one of both, also one without a counter.
  std::string inStep() const;
  std::string outOfStep() const;
};

/// Entities and the named configurations that group them, as read from a model resource (docs/formats.md).
///
/// Immutable once a coordinator uses it.
class NSManagedObjectModel {
 public:
  /// Absent when the resource is not a model: a JSON object of "version" (1 without it), "entities" (a list of name,
  /// attributes, indexes and counter) and "configurations" (lists of entity names). An entity has at most 64
  /// attributes.
  static std::shared_ptr<NSManagedObjectModel> load(const ResourceURL& url);

  /// Sets the class of an entity's objects; before a coordinator uses the model.
  void setClass(std::string_view entity, NSManagedObjectFactory factory);

  const NSEntityDescription* entity(std::string_view name) const;
  /// The entities of a configuration, absent when there is none of that name.
  std::optional<std::vector<const NSEntityDescription*>> configuration(std::string_view name) const;
  /// Kept in each store file. The number grows with each change that a store is to follow; the hash changes whenever an
  /// entity, attribute or index does, and tells models apart that claim to be of one version.
  struct Version {
    std::int64_t number = 1;
    std::string hash;
  };
  const Version& version() const { return version_; }

 private:
  std::vector<std::unique_ptr<NSEntityDescription>> entities_;
  std::map<std::string, std::vector<std::string>, std::less<>> configurations_;
  Version version_;
};

}  // namespace tarvo::platform
