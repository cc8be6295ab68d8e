#include "platform/persistence/FetchPlan.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <utility>

#include "platform/foundation/Text.h"

namespace tarvo::platform {
namespace {

template <class T>
std::optional<T> spelled(const std::string& text) {
  T value{};
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (status != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

template <class T>
int threeWay(const T& a, const T& b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

bool satisfies(NSPredicate::Operator op, int order) {
  switch (op) {
    case NSPredicate::Operator::equal:
      return order == 0;
    case NSPredicate::Operator::atMost:
      return order <= 0;
    case NSPredicate::Operator::atLeast:
      return order >= 0;
  }
  return false;
}

Result<int> positionOf(std::string_view attribute, const NSEntityDescription& entity) {
  const int position = entity.attributeIndex(attribute);
  if (position >= 0) return position;
  return storeError(StoreErrorCode::coreData, concat(entity.name, " has no attribute ", attribute));
}

std::string_view comparison(NSPredicate::Operator op) {
  switch (op) {
    case NSPredicate::Operator::equal:
      return " = ";
    case NSPredicate::Operator::atMost:
      return " <= ";
    case NSPredicate::Operator::atLeast:
      return " >= ";
  }
  return "";
}

}  // namespace

Result<FetchPlan> FetchPlan::compile(const NSEntityDescription& entity, const NSFetchRequest& request) {
  FetchPlan plan(entity);
  plan.limited_ = request.fetchLimit > 0;
  for (const NSPredicate& predicate : request.predicates)
    if (auto error = plan.add(predicate)) return *error;
  for (const NSSortDescriptor& sort : request.sortDescriptors) {
    auto attribute = positionOf(sort.attribute, entity);
    if (!attribute) return attribute.error();
    plan.sorts_.push_back({*attribute, sort.ascending});
  }
  return plan;
}

std::optional<Error> FetchPlan::add(const NSPredicate& predicate) {
  auto position = positionOf(predicate.attribute, *entity_);
  if (!position) return position.error();
  const int attribute = *position;
  bool comparable = false;
  switch (entity_->attributes[static_cast<std::size_t>(attribute)].type) {
    case NSAttributeType::integer64:
    case NSAttributeType::boolean:
      comparable = addWhole(attribute, predicate.op, predicate.value);
      break;
    case NSAttributeType::floating:
      comparable = addNumber(attribute, predicate.op, predicate.value);
      break;
    case NSAttributeType::date:
      if (const auto* date = std::get_if<Date>(&predicate.value)) {
        const double seconds = secondsSince1970(*date);
        never_ = never_ || std::isnan(seconds);
        conditions_.emplace_back(attribute, predicate.op, seconds);
        comparable = true;
      }
      break;
    case NSAttributeType::string:
      if (const auto* text = std::get_if<std::string>(&predicate.value)) {
        conditions_.emplace_back(attribute, predicate.op, *text);
        comparable = true;
      }
      break;
  }
  if (comparable) return std::nullopt;
  return storeError(StoreErrorCode::coreData,
                    concat(entity_->name, ".", predicate.attribute, " cannot be compared with such a value"));
}

/// Against integers and Booleans. A bound between two integers is moved to the one that gives the same matches.
bool FetchPlan::addWhole(int attribute, Operator op, const NSPredicate::Constant& constant) {
  if (const auto* flag = std::get_if<bool>(&constant)) {
    conditions_.emplace_back(attribute, op, std::int64_t{*flag ? 1 : 0});
  } else if (const auto* integer = std::get_if<std::int64_t>(&constant)) {
    conditions_.emplace_back(attribute, op, *integer);
  } else if (const auto* number = std::get_if<double>(&constant)) {
    addWholeBound(attribute, op, *number);
  } else if (const auto* text = std::get_if<std::string>(&constant)) {
    if (const auto whole = spelled<std::int64_t>(*text)) {
      conditions_.emplace_back(attribute, op, *whole);
    } else {
      addWholeBound(attribute, op, spelled<double>(*text).value_or(std::nan("")));
    }
  } else {
    return false;
  }
  return true;
}

void FetchPlan::addWholeBound(int attribute, Operator op, double bound) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  const double rounded = op == Operator::atMost ? std::floor(bound) : std::ceil(bound);
  const bool isAbove = rounded >= kTwoTo63;
  const bool isBelow = rounded < -kTwoTo63;
  if (std::isnan(bound) || (op == Operator::equal && rounded != bound) || (isAbove && op != Operator::atMost) ||
      (isBelow && op != Operator::atLeast)) {
    never_ = true;
    return;
  }
  const std::int64_t whole = isAbove ? INT64_MAX : (isBelow ? INT64_MIN : static_cast<std::int64_t>(rounded));
  conditions_.emplace_back(attribute, op, whole);
}

bool FetchPlan::addNumber(int attribute, Operator op, const NSPredicate::Constant& constant) {
  double value = 0;
  if (const auto* flag = std::get_if<bool>(&constant)) {
    value = *flag ? 1 : 0;
  } else if (const auto* integer = std::get_if<std::int64_t>(&constant)) {
    value = static_cast<double>(*integer);
  } else if (const auto* number = std::get_if<double>(&constant)) {
    value = *number;
  } else if (const auto* text = std::get_if<std::string>(&constant)) {
    value = spelled<double>(*text).value_or(std::nan(""));
  } else {
    return false;
  }
  never_ = never_ || std::isnan(value);
  conditions_.emplace_back(attribute, op, value);
  return true;
}

bool FetchPlan::holds(const Condition& condition, const NSManagedObject& object) const {
  if (!object.isPresent(condition.attribute)) return false;
  const NSManagedObject::Slot& slot = object.slots_[static_cast<std::size_t>(condition.attribute)];
  if (const auto* integer = std::get_if<std::int64_t>(&condition.value))
    return satisfies(condition.op, threeWay(slot.integer, *integer));
  if (const auto* number = std::get_if<double>(&condition.value))
    return satisfies(condition.op, threeWay(slot.number, *number));
  return satisfies(condition.op, slot.text.view().compare(std::get<std::string>(condition.value)));
}

bool FetchPlan::matches(const NSManagedObject& object) const {
  if (never_) return false;
  for (const Condition& condition : conditions_)
    if (!holds(condition, object)) return false;
  return true;
}

int FetchPlan::compare(const NSManagedObject& a, const NSManagedObject& b, int attribute) const {
  if (!a.isPresent(attribute) || !b.isPresent(attribute))
    return threeWay(a.isPresent(attribute), b.isPresent(attribute));
  const auto position = static_cast<std::size_t>(attribute);
  switch (entity_->attributes[position].type) {
    case NSAttributeType::integer64:
    case NSAttributeType::boolean:
      return threeWay(a.slots_[position].integer, b.slots_[position].integer);
    case NSAttributeType::floating:
    case NSAttributeType::date:
      return threeWay(a.slots_[position].number, b.slots_[position].number);
    case NSAttributeType::string:
      return a.slots_[position].text.view().compare(b.slots_[position].text.view());
  }
  return 0;
}

bool FetchPlan::precedes(const NSManagedObject& a, const NSManagedObject& b) const {
  for (const Sort& sort : sorts_) {
    const int order = compare(a, b, sort.attribute);
    if (order != 0) return sort.ascending ? order < 0 : order > 0;
  }
  const bool aIsNew = a.standing_ == NSManagedObject::Standing::inserted;
  const bool bIsNew = b.standing_ == NSManagedObject::Standing::inserted;
  const int order = aIsNew == bIsNew ? threeWay(a.key_, b.key_) : threeWay(aIsNew, bIsNew);
  return isAscending() ? order < 0 : order > 0;
}

const std::string& FetchPlan::column(int attribute) const {
  return entity_->attributes[static_cast<std::size_t>(attribute)].name;
}

bool FetchPlan::isLiteral(const Condition& condition) const {
  const auto* value = std::get_if<std::int64_t>(&condition.value);
  return value && (*value == 0 || *value == 1) && condition.op == Operator::equal &&
         entity_->attributes[static_cast<std::size_t>(condition.attribute)].type == NSAttributeType::boolean;
}

std::string FetchPlan::whereClause(std::string_view sign) const {
  std::string all;
  std::string inStep;  // conditions of the counter, once for each of the two ways to find a row by it
  std::string outOfStep;
  int parameter = 0;
  for (const Condition& condition : conditions_) {
    const std::string_view operation = comparison(condition.op);
    const std::string value = !isLiteral(condition)                          ? concat("?", ++parameter)
                              : std::get<std::int64_t>(condition.value) != 0 ? "1"
                                                                             : "0";
    const std::string term = concat(" AND ", sign, "\"", column(condition.attribute), "\"", operation, value);
    if (condition.attribute != entity_->counter || !sign.empty()) {
      all += term;
      continue;
    }
    inStep += concat(" AND \"_key\"", operation, value, " + 1");
    outOfStep += term;
  }
  if (!inStep.empty()) all += concat(" AND (", entity_->inStep(), inStep, " OR ", entity_->outOfStep(), outOfStep, ")");
  return all.empty() ? all : all.replace(0, 4, " WHERE");
}

std::string FetchPlan::orderClause(bool byKey) const {
  if (!rowsAreSorted()) return {};
  if (byKey) return concat(" ORDER BY \"_key\"", isAscending() ? " ASC" : " DESC");
  std::string sql = " ORDER BY ";
  std::string_view direction = " ASC";
  for (const Sort& sort : sorts_) {
    direction = sort.ascending ? " ASC" : " DESC";
    sql += concat("\"", column(sort.attribute), "\"", direction, ", ");
  }
  return sql + concat("\"_key\"", direction);
}

int FetchPlan::bind(Execution& execution) const {
  int parameter = 1;
  for (const Condition& condition : conditions_) {
    if (isLiteral(condition)) continue;
    if (const auto* integer = std::get_if<std::int64_t>(&condition.value))
      execution.bind(parameter, *integer);
    else if (const auto* number = std::get_if<double>(&condition.value))
      execution.bind(parameter, *number);
    else
      execution.bind(parameter, std::string_view(std::get<std::string>(condition.value)));
    ++parameter;
  }
  return parameter;
}

namespace {

bool areMerged(const FetchPlan& plan, PlannedRows::Way way) {
  return way == PlannedRows::Way::inOrder && plan.sortsByCounter();
}

/// `isOther`: of the rows that are not in step, which their index gives in order; `withCounter`: what merges reads it.
std::string textOf(const FetchPlan& plan, PlannedRows::Way way, const PlannedRows::Reading& reading, bool isOther,
                   bool withCounter) {
  const bool isMerged = areMerged(plan, way);
  std::string sql = "SELECT ";
  for (const int attribute : reading.attributes) sql += concat("\"", plan.column(attribute), "\", ");
  sql += "\"_key\"";
  if (withCounter) sql += concat(", \"", plan.column(plan.entity().counter), "\"");
  const std::string where = plan.whereClause(way == PlannedRows::Way::inOrder ? "+" : "");
  sql += concat(" FROM \"", plan.entity().name, "\"", where);
  std::string_view separator = where.empty() ? " WHERE " : " AND ";
  if (isOther) sql += concat(std::exchange(separator, " AND "), plan.entity().outOfStep());
  if (reading.lastKey) sql += concat(std::exchange(separator, " AND "), isOther ? "+" : "", "\"_key\" <= ?");
  if (reading.firstCounter && isMerged && !isOther)  // the counter of a row in step is its key less one
    sql += concat(separator, "\"_key\" > ? AND ", plan.entity().inStep());
  else if (reading.firstCounter)
    sql += concat(separator, isOther ? "" : "+", "\"", plan.column(plan.entity().counter), "\" >= ?");
  sql += plan.orderClause(isMerged && !isOther);
  return reading.limit > 0 && !isMerged ? sql + " LIMIT ?" : sql;
}

void bindAll(const FetchPlan& plan, const PlannedRows::Reading& reading, bool isMerged, Execution& rows) {
  int next = plan.bind(rows);  // a bare "?" takes the next number
  if (reading.lastKey) rows.bind(next++, *reading.lastKey);
  if (reading.firstCounter) rows.bind(next++, *reading.firstCounter);
  if (reading.limit > 0 && !isMerged) rows.bind(next, static_cast<std::int64_t>(reading.limit));
}

}  // namespace

PlannedRows::PlannedRows(Database& database, const FetchPlan& plan, Way way, const Reading& reading)
    : key_(static_cast<int>(reading.attributes.size())), limit_(reading.limit), isAscending_(plan.isAscending()) {
  const bool isMerged = areMerged(plan, way);
  if (isMerged) {
    others_.emplace(database, textOf(plan, way, reading, /*isOther=*/true, /*withCounter=*/true));
    bindAll(plan, reading, isMerged, *others_);
    hasOther_ = others_->step();
    if (others_->failed()) return;  // its error must stay the latest
    if (!hasOther_) others_.reset();
  }
  rows_.emplace(database, textOf(plan, way, reading, /*isOther=*/false, /*withCounter=*/others_.has_value()));
  bindAll(plan, reading, isMerged, *rows_);
  row_ = &*rows_;
}

bool PlannedRows::step() {
  if (failed() || (limit_ > 0 && given_++ == limit_)) return false;
  if (!others_) return rows_->step();
  if (row_ == &*rows_)
    hasRow_ = rows_->step();
  else
    hasOther_ = others_->step();
  for (; hasRow_ && !(hasOther_ && isOtherFirst()); hasRow_ = rows_->step())
    if (isInStep()) {
      row_ = &*rows_;
      return true;
    }
  row_ = &*others_;
  return hasOther_ && !failed();
}

bool PlannedRows::isInStep() const {
  const Cell counter = rows_->cell(key_ + 1);
  return !counter.isNull() && counter.integer() == rows_->integer(key_) - 1;
}

/// Whether the row that is not in step comes before all those by key that are still to be looked at.
bool PlannedRows::isOtherFirst() const {
  const Cell counter = others_->cell(key_ + 1);
  if (counter.isNull()) return isAscending_;
  const std::int64_t other = counter.integer();
  const std::int64_t key = rows_->integer(key_);
  const bool isBelow = other != key - 1 ? other < key - 1 : others_->integer(key_) < key;
  return isBelow == isAscending_;
}

}  // namespace tarvo::platform
