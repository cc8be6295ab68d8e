#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/foundation/Error.h"
#include "platform/persistence/Database.h"
#include "platform/persistence/NSFetchRequest.h"
#include "platform/persistence/NSManagedObject.h"

namespace tarvo::platform {

/// A fetch request made ready for both places where objects live: as SQL for rows, and as functions for objects in
/// memory. Constants are converted once to the attributes' types, so that both places give the same answer.
///
/// Threads: a plain value; `matches` and `precedes` where the objects may be read.
class FetchPlan {
 public:
  /// An error for an attribute that the entity lacks, or a constant that cannot be compared with it.
  static Result<FetchPlan> compile(const NSEntityDescription& entity, const NSFetchRequest& request);

  /// Some condition can never hold, for instance a text that spells no number against a number.
  bool isEmpty() const { return never_; }
  bool hasConditions() const { return !conditions_.empty(); }

  bool matches(const NSManagedObject& object) const;
  /// The order of the result. Objects that are equal in it stand in the order of their rows, unsaved ones as the
  /// latest; in reverse when the last sort descriptor is descending.
  bool precedes(const NSManagedObject& a, const NSManagedObject& b) const;
  /// Whether rows come in the order of `precedes`. Without sort and limit they come as SQLite finds them: a sort that
  /// nobody asked for would only keep it from the best index.
  bool rowsAreSorted() const { return !sorts_.empty() || limited_; }

  /// " WHERE …", or nothing without conditions. Constants are parameters, except Booleans, which are written out as 1
  /// or 0: SQLite uses a partial index only where it can see the constant. `sign` is written before each column; with
  /// "+" SQLite uses no index of these columns.
  std::string whereClause(std::string_view sign = "") const;
  /// " ORDER BY …" or nothing. Where all rows are in step, a counter may be sorted by their keys.
  std::string orderClause(bool areInStep = false) const;
  bool sortsByCounter() const { return sorts_.size() == 1 && sorts_.front().attribute == entity_->counter; }
  const NSEntityDescription& entity() const { return *entity_; }
  const std::string& column(int attribute) const;
  /// Binds the parameters of `whereClause`; answers the first one left over. The plan must outlive the execution.
  int bind(Execution& execution) const;

 private:
  using Operator = NSPredicate::Operator;
  struct Condition {
    template <class Constant>
    Condition(int position, Operator comparison, Constant constant)
        : attribute(position), op(comparison), value(std::move(constant)) {}

    int attribute;
    Operator op;
    std::variant<std::int64_t, double, std::string> value;
  };
  struct Sort {
    int attribute;
    bool ascending;
  };

  explicit FetchPlan(const NSEntityDescription& entity) : entity_(&entity) {}
  /// Absent on success.
  std::optional<Error> add(const NSPredicate& predicate);
  bool addWhole(int attribute, Operator op, const NSPredicate::Constant& constant);
  bool addNumber(int attribute, Operator op, const NSPredicate::Constant& constant);
  void addWholeBound(int attribute, Operator op, double bound);
  bool isLiteral(const Condition& condition) const;
  int compare(const NSManagedObject& a, const NSManagedObject& b, int attribute) const;
  bool holds(const Condition& condition, const NSManagedObject& object) const;

  const NSEntityDescription* entity_;
  std::vector<Condition> conditions_;
  std::vector<Sort> sorts_;
  bool limited_ = false;
  bool never_ = false;
};

}  // namespace tarvo::platform
