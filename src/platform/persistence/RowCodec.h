#pragma once

#include <cstdint>
#include <string>

#include "platform/persistence/Database.h"
#include "platform/persistence/InternedText.h"
#include "platform/persistence/NSManagedObject.h"

namespace tarvo::platform {

/// Moves attribute values between objects and rows. Dates are REAL seconds since 1970, unrounded; absent is NULL.
///
/// Threads: as the objects. Keep one for all rows of a query: a text that repeats from row to row is not looked up
/// again.
class RowCodec {
 public:
  explicit RowCodec(const NSEntityDescription& entity);
  /// "SELECT _key, all attributes FROM table", to be completed by clauses.
  std::string selectText() const;
  /// Fills an object that has no values yet from a row of such a query.
  void read(const Execution& row, NSManagedObject& object);
  /// Whether both objects have changed in the same attributes, and to the same values.
  static bool changesEqually(const NSManagedObject& a, const NSManagedObject& b);
  static void bind(Execution& execution, int parameter, const NSManagedObject& object, int attribute);

 private:
  const NSEntityDescription& entity_;
  LatestTexts texts_;
};

}  // namespace tarvo::platform
