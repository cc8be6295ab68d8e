#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
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
  /// " ORDER BY …" or nothing. Rows that are in step may be sorted by their keys instead of their counter.
  std::string orderClause(bool byKey = false) const;
  bool sortsByCounter() const { return sorts_.size() == 1 && sorts_.front().attribute == entity_->counter; }
  /// The direction of the last sort descriptor, upwards without any.
  bool isAscending() const { return sorts_.empty() || sorts_.back().ascending; }
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

/// The rows of a plan as the file has them, one after the other in the plan's order.
///
/// Rows in the order of their counter are not sorted, however many they are: those in step come by key, the others from
/// the index that holds them, and the two are merged.
/// Threads: as the database. The plan must outlive it.
class PlannedRows {
 public:
  /// How rows are found: by an index of the conditions and then sorted, or all in order, leaving out what does not
  /// match.
  enum class Way { byIndex, inOrder };
  /// What to read: these attributes, of rows up to that key, at most so many (0: all), and only those whose counter is
  /// at least that.
  struct Reading {
    std::vector<int> attributes;
    std::optional<std::int64_t> lastKey;
    std::size_t limit = 0;
    std::optional<std::int64_t> firstCounter = {};
  };

  PlannedRows(Database& database, const FetchPlan& plan, Way way, const Reading& reading);

  /// True for each row; false at the end, after which it must not be called again, and on failure.
  bool step();
  /// The attributes in the order of the reading, then the key.
  const Execution& row() const { return *row_; }
  bool failed() const { return (others_ && others_->failed()) || rows_->failed(); }
  /// As that of Execution.
  Error error(StoreErrorCode code, std::string_view what) const {
    return (others_ ? *others_ : *rows_).error(code, what);
  }

 private:
  bool isInStep() const;
  bool isOtherFirst() const;

  const int key_;  ///< column of the key; behind it that of the counter where two passes are merged
  const std::size_t limit_;
  const bool isAscending_;
  std::optional<Execution> rows_;    ///< the whole plan, or by key what is in step and what else is met there
  std::optional<Execution> others_;  ///< those not in step; absent when there are none
  const Execution* row_ = nullptr;   ///< the one of both that has given the latest row
  bool hasRow_ = false, hasOther_ = false;
  std::size_t given_ = 0;
};

}  // namespace tarvo::platform
