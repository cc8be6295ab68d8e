#pragma once

#include <vector>

#include "platform/persistence/Database.h"
#include "platform/persistence/NSManagedObject.h"

namespace tarvo::platform {

/// Moves attribute values between objects and rows. Dates are REAL seconds since 1970, unrounded; absent is NULL.
///
/// Threads: as the objects. Keep one for all rows of a query: a text that repeats from row to row is not looked up
/// again.
class RowCodec {
 public:
  explicit RowCodec(const NSEntityDescription& entity);
  ~RowCodec();
  RowCodec(const RowCodec&) = delete;
  RowCodec& operator=(const RowCodec&) = delete;

  /// Fills an object without values from a row that has all attributes in order, the first at `firstColumn`.
  void read(const Execution& row, int firstColumn, NSManagedObject& object);
  /// Whether both objects have changed in the same attributes, and to the same values.
  static bool changesEqually(const NSManagedObject& a, const NSManagedObject& b);
  static void bind(Execution& execution, int parameter, const NSManagedObject& object, int attribute);

 private:
  const NSEntityDescription& entity_;
  std::vector<const InternedText*> latest_;  ///< text of the row before, for each attribute
};

}  // namespace tarvo::platform
