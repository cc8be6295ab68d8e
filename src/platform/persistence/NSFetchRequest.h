#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include <tarvo/platform/Date.h>

namespace tarvo::platform {

/// attribute OP value. An absent attribute matches no comparison. A text against a number attribute compares as
/// the number it spells.
struct NSPredicate {
  enum class Operator { equal, atMost, atLeast };
  using Constant = std::variant<bool, std::int64_t, double, std::string, Date>;
  std::string attribute;
  Operator op;
  Constant value;
};

/// Absent values come first ascending and last descending.
struct NSSortDescriptor {
  std::string attribute;
  bool ascending = true;
};

/// What to fetch or count: all objects of an entity that match every predicate, sorted, at most `fetchLimit`.
struct NSFetchRequest {
  std::string entity;
  std::vector<NSPredicate> predicates;  ///< joined by AND
  std::vector<NSSortDescriptor> sortDescriptors;
  std::size_t fetchLimit = 0;  ///< 0: no limit
  /// False leaves out the objects whose insertion is not saved. Changes and deletes that are not saved show all the
  /// same.
  bool includesPendingInsertions = true;
};

}  // namespace tarvo::platform
