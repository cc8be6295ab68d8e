#include "platform/persistence/NSManagedObjectContext.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <utility>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/EntityObjects.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

using Store = NSPersistentStoreCoordinator::Store;
using Objects = std::vector<std::shared_ptr<NSManagedObject>>;

namespace {

constexpr std::size_t kAllRows = std::numeric_limits<std::size_t>::max();

}  // namespace

struct NSManagedObjectContext::State {
  explicit State(NSManagedObjectContext& owner) : context(owner) {}

  EntityObjects& objects(const NSEntityDescription& entity) {
    return entities.try_emplace(&entity, entity, context).first->second;
  }

  NSManagedObjectContext& context;
  bool deferringSaves = false;        ///< in a block given to `perform`
  bool saveDeferred = false;          ///< a save waits to be written
  std::size_t rowsAtOnce = kAllRows;  ///< how much the next transaction may try; all unless the one before failed
  std::map<const NSEntityDescription*, EntityObjects> entities;
  Store::Metadata metadata;  ///< unsaved
};

/// A request with what it is about.
struct NSManagedObjectContext::Request {
  const NSEntityDescription& entity;
  Store& store;
  FetchPlan plan;
};

namespace {

/// The objects that exist only here, as far as a request may find them.
const EntityObjects::Pending& insertedFor(const NSFetchRequest& request, const EntityObjects& objects) {
  static const auto& none = *new EntityObjects::Pending;
  return request.includesPendingInsertions ? objects.inserted() : none;
}

/// Fills what `found` lacks: the objects of rows that nobody uses, each at the place of its key.
std::optional<Error> readMissing(Store& store, EntityObjects& objects, const std::vector<std::int64_t>& keys,
                                 Objects& found) {
  std::string sql;
  for (std::size_t first = 0; first < keys.size(); ++first) {
    if (found[first]) continue;
    // Rows mostly stand in the file in the order of the answer: a run of neighbours is one pass, upwards or downwards.
    std::size_t last = first;
    const std::int64_t step = first + 1 < keys.size() && keys[first + 1] < keys[first] ? -1 : 1;
    while (last + 1 < keys.size() && !found[last + 1] && keys[last + 1] == keys[last] + step) ++last;
    if (sql.empty()) sql = concat(objects.selectText(), " WHERE \"_key\" BETWEEN ?1 AND ?2");
    Execution rows(store.database(), sql);
    rows.bind(1, std::min(keys[first], keys[last]));
    rows.bind(2, std::max(keys[first], keys[last]));
    while (rows.step()) {
      const std::int64_t key = rows.integer(0);
      found[first + static_cast<std::size_t>((key - keys[first]) * step)] = objects.registerNew(rows);
    }
    if (rows.failed()) return rows.error(StoreErrorCode::operation, "The records could not be read");
    first = last;
  }
  std::erase(found, nullptr);  // another process may have deleted a row meanwhile
  return std::nullopt;
}

/// The rows of a plan whose objects have no unsaved changes, in the file's order. First their keys, for most
/// queries from an index alone: what is in use need not be read, and SQLite sorts keys rather than records.
Result<Objects> fetchRows(Store& store, EntityObjects& objects, const FetchPlan& plan, std::size_t limit) {
  std::vector<std::int64_t> keys;
  Objects found;
  keys.reserve(limit);
  found.reserve(limit);
  {
    // With conditions an index gives the order, or few rows are sorted. Each object with unsaved changes or deletes
    // drops at most one row of the answer.
    const std::size_t most = limit > 0 ? limit + objects.changed().size() + objects.deleted().size() : 0;
    const auto way = plan.hasConditions() ? PlannedRows::Way::byIndex : PlannedRows::Way::inOrder;
    PlannedRows rows(store.database(), plan, way, {.limit = most});
    while ((limit == 0 || found.size() < limit) && rows.step()) {
      const std::int64_t key = rows.row().integer(0);
      auto object = objects.registered(key);
      if (object && EntityObjects::isPending(*object)) continue;
      keys.push_back(key);
      found.push_back(std::move(object));
    }
    if (rows.failed()) return rows.error(StoreErrorCode::operation, "The records could not be read");
  }
  if (auto error = readMissing(store, objects, keys, found)) return *error;
  return found;
}

/// Puts what is unsaved and matches into the sorted result.
void mergePending(const EntityObjects& objects, const FetchPlan& plan, const NSFetchRequest& request, Objects& found) {
  const auto precedes = [&](const auto& a, const auto& b) { return plan.precedes(*a, *b); };
  if (!plan.rowsAreSorted() && !std::is_sorted(found.begin(), found.end(), precedes))
    std::sort(found.begin(), found.end(), precedes);
  const auto saved = std::ssize(found);
  for (const EntityObjects::Pending* pending : {&objects.changed(), &insertedFor(request, objects)})
    for (const auto& [key, object] : *pending)
      if (plan.matches(*object)) found.push_back(object);
  // However much is pending, only what can be part of the answer is sorted.
  const auto limit = static_cast<std::ptrdiff_t>(request.fetchLimit);
  if (limit > 0 && std::ssize(found) - saved > limit) {
    std::nth_element(found.begin() + saved, found.begin() + saved + limit, found.end(), precedes);
    found.resize(static_cast<std::size_t>(saved + limit));
  }
  std::sort(found.begin() + saved, found.end(), precedes);
  std::inplace_merge(found.begin(), found.begin() + saved, found.end(), precedes);
}

/// Rows that match as the file has them, corrected by what is unsaved.
Result<std::int64_t> countMatches(Store& store, const EntityObjects& objects, const FetchPlan& plan,
                                  const NSFetchRequest& request) {
  auto matches = store.matchingRows(objects.entity(), plan);
  if (!matches) return matches;
  std::int64_t count = *matches;
  for (const EntityObjects::Pending* pending : {&objects.changed(), &objects.deleted()})
    for (const auto& [key, object] : *pending) {
      auto counted = store.rowMatches(objects.entity(), plan, key);
      if (!counted) return counted.error();
      if (*counted) --count;
    }
  for (const EntityObjects::Pending* pending : {&objects.changed(), &insertedFor(request, objects)})
    count += std::count_if(pending->begin(), pending->end(), [&](const auto& p) { return plan.matches(*p.second); });
  return count;
}

/// What a transaction writes of one entity.
struct Part {
  EntityObjects& objects;
  EntityObjects::Portion portion;
  Store::Receipt receipt;
};

std::optional<Error> write(Store& store, std::vector<Part>& parts, const Store::Metadata& metadata) {
  for (Part& part : parts)
    if (auto error = store.write(part.objects, part.portion, part.receipt)) return error;
  for (const auto& [name, value] : metadata)
    if (auto error = store.writeMetadata(name, value)) return error;
  return std::nullopt;
}

/// All parts or none; a single statement needs no transaction around it for that.
std::optional<Error> commit(Store& store, std::vector<Part>& parts, const Store::Metadata& metadata) {
  if (parts.size() == 1 && metadata.empty() &&
      !store.needsTransaction(parts.front().objects.entity(), parts.front().portion))
    return write(store, parts, metadata);
  auto transaction = Transaction::begin(store.database(), Transaction::Kind::writing);
  if (!transaction) return transaction.error();
  faultPoint("save: begun");
  if (auto error = write(store, parts, metadata)) return error;
  faultPoint("save: before the commit");
  return transaction->commit();
}

Error unknownEntity(std::string_view name) {
  return storeError(StoreErrorCode::coreData, concat("The model has no entity ", name));
}

Error missingObject(const NSManagedObjectID& id) {
  return storeError(StoreErrorCode::missingObject, concat("There is no object ", id.description()));
}

}  // namespace

NSManagedObjectContext::NSManagedObjectContext(std::shared_ptr<NSPersistentStoreCoordinator> coordinator)
    : coordinator_(std::move(coordinator)), state_(std::make_unique<State>(*this)), queue_("NSManagedObjectContext") {}

NSManagedObjectContext::~NSManagedObjectContext() = default;

void NSManagedObjectContext::perform(std::function<void()> block) {
  performing_.fetch_add(1);
  queue_.async([this, block = std::move(block)] {
    state_->deferringSaves = true;
    block();
    state_->deferringSaves = false;
    if (performing_.fetch_sub(1) == 1) writeDeferredSave();
  });
}

void NSManagedObjectContext::performAndWait(const std::function<void()>& block) {
  queue_.syncReentrant([&] {
    const bool insideQueuedBlock = std::exchange(state_->deferringSaves, false);
    if (!insideQueuedBlock) writeDeferredSave();
    block();
    state_->deferringSaves = insideQueuedBlock;
  });
}

bool NSManagedObjectContext::isCurrent() const { return queue_.isCurrent(); }

void NSManagedObjectContext::requireCurrent() const {
  if (!isCurrent()) fatalError("a context was used outside its blocks");
}

Result<NSManagedObjectContext::Request> NSManagedObjectContext::compiled(const NSFetchRequest& request,
                                                                         std::string_view operation) {
  requireCurrent();
  const NSEntityDescription* entity = coordinator_->model().entity(request.entity);
  if (!entity) return unknownEntity(request.entity);
  Store* store = coordinator_->store();
  if (!store) return coordinator_->whyNoStore(operation);
  auto plan = FetchPlan::compile(*entity, request);
  if (!plan) return plan.error();
  return Request{*entity, *store, std::move(*plan)};
}

Result<Objects> NSManagedObjectContext::fetch(const NSFetchRequest& request) {
  auto compiledRequest = compiled(request, "fetch");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  if (plan.isEmpty()) return Objects{};

  EntityObjects& objects = state_->objects(entity);
  auto found = fetchRows(store, objects, plan, request.fetchLimit);
  if (!found) return found;
  mergePending(objects, plan, request, *found);
  if (request.fetchLimit > 0 && found->size() > request.fetchLimit) found->resize(request.fetchLimit);
  return found;
}

Result<std::size_t> NSManagedObjectContext::count(const NSFetchRequest& request) {
  auto compiledRequest = compiled(request, "count");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  if (plan.isEmpty()) return std::size_t{0};

  const EntityObjects& objects = state_->objects(entity);
  auto counted = plan.hasConditions() ? countMatches(store, objects, plan, request) : store.rowCount(entity);
  if (!counted) return counted.error();
  if (!plan.hasConditions())
    *counted +=
        (request.includesPendingInsertions ? std::ssize(objects.inserted()) : 0) - std::ssize(objects.deleted());
  const auto all = static_cast<std::size_t>(std::max<std::int64_t>(*counted, 0));
  return request.fetchLimit > 0 ? std::min(all, request.fetchLimit) : all;
}

Result<StoredRows> NSManagedObjectContext::rows(const NSFetchRequest& request) {
  auto compiledRequest = compiled(request, "fetch");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  writeDeferredSave();
  StoredRows rows(*this, std::move(plan));
  if (rows.plan_.isEmpty()) return rows;
  auto view = Transaction::begin(store.database(), Transaction::Kind::reading);
  if (!view) return view.error();
  Execution last(store.database(), concat("SELECT max(\"_key\") FROM \"", entity.name, "\""));
  if (!last.step()) return last.error(StoreErrorCode::operation, "The keys could not be read");
  rows.store_ = store.uuid();
  rows.lastKey_ = last.integer(0);
  auto all = store.rowCount(entity);
  if (!all) return all.error();
  auto matching = rows.plan_.hasConditions() ? store.matchingRows(entity, rows.plan_) : all;
  if (!matching) return matching.error();
  rows.count_ = static_cast<std::size_t>(*matching);
  // Finding many rows by an index and sorting them costs more than going through all in order, above all memory.
  if (*matching > *all / 4) rows.way_ = PlannedRows::Way::inOrder;
  return rows;
}

Result<NSManagedObjectContext::Removal> NSManagedObjectContext::removeRows(const NSFetchRequest& request, Numbers among,
                                                                           const std::vector<NSPredicate>& matching,
                                                                           std::size_t most) {
  auto compiledRequest = compiled(request, "delete");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  auto condition = FetchPlan::compile(entity, {.entity = request.entity, .predicates = matching});
  if (!condition) return condition.error();
  Removal removal;
  if (plan.isEmpty() || condition->isEmpty() || entity.counter < 0 || hasChanges()) return removal;
  if (auto refusal = claim()) return *refusal;

  const EntityObjects& objects = state_->objects(entity);
  std::vector<std::int64_t> keys;
  {
    PlannedRows rows(store.database(), plan, PlannedRows::Way::inOrder,
                     {{entity.counter}, /*lastKey=*/among.last + 1, request.fetchLimit, /*firstCounter=*/among.first});
    while (keys.size() < most && rows.step()) {
      const std::int64_t number = rows.row().integer(0), key = rows.row().integer(1);
      if (number > among.last || objects.registered(key)) continue;
      if (condition->hasConditions()) {
        auto matches = store.rowMatches(entity, *condition, key);
        if (!matches) return matches.error();
        if (!*matches) continue;
      }
      keys.push_back(key);
      removal.highest = std::max(removal.highest.value_or(0), number);
    }
    if (rows.failed()) return rows.error(StoreErrorCode::operation, "The records could not be read");
  }
  if (keys.empty()) return removal;
  std::sort(keys.begin(), keys.end());
  removal.rows = keys.size();

  faultPoint("retention: before the transaction");
  auto transaction = Transaction::begin(store.database(), Transaction::Kind::writing);
  if (!transaction) return transaction.error();
  Store::Receipt receipt;
  if (auto error = store.removeRows(entity, keys, receipt)) return *error;
  faultPoint("retention: before the commit");
  if (auto error = transaction->commit()) return *error;
  store.didCommit(entity, receipt);
  faultPoint("retention: removed");
  return removal;
}

Result<std::int64_t> NSManagedObjectContext::removedRows(std::string_view name) {
  auto compiledRequest = compiled({.entity = std::string(name)}, "count");
  if (!compiledRequest) return compiledRequest.error();
  return compiledRequest->store.removedRows(compiledRequest->entity);
}

Result<std::uint64_t> NSManagedObjectContext::storeBytes() {
  requireCurrent();
  Store* store = coordinator_->store();
  if (!store) return coordinator_->whyNoStore("fetch");
  return store->bytesInUse();
}

std::optional<Error> NSManagedObjectContext::renewStore(const std::function<std::optional<Error>()>& between) {
  requireCurrent();
  state_->entities.clear();
  state_->metadata.clear();
  state_->saveDeferred = false;
  state_->rowsAtOnce = kAllRows;
  return coordinator_->renewStore(between);
}

std::optional<Error> NSManagedObjectContext::claim(std::optional<WriteRight::Span> wait) {
  requireCurrent();
  return coordinator_->claim(wait);
}

std::shared_ptr<NSManagedObject> NSManagedObjectContext::insertNewObject(std::string_view name) {
  (void)claim();
  const NSEntityDescription* entity = coordinator_->model().entity(name);
  return entity ? state_->objects(*entity).insert() : nullptr;
}

void NSManagedObjectContext::deleteObject(const std::shared_ptr<NSManagedObject>& object) {
  requireCurrent();
  if (object) state_->objects(object->entity()).remove(object);
}

Result<std::shared_ptr<NSManagedObject>> NSManagedObjectContext::existingObject(const NSManagedObjectID& id) {
  requireCurrent();
  if (!id.entity || coordinator_->model().entity(id.entity->name) != id.entity) return missingObject(id);
  EntityObjects& objects = state_->objects(*id.entity);
  std::int64_t key = 0;
  if (auto object = objects.named(id, key)) return object;
  Store* store = coordinator_->store();
  if (!store) return coordinator_->whyNoStore("fetch");
  if (key == 0 || (id.storeUUID && *id.storeUUID != *store->uuid())) return missingObject(id);

  Execution row(store->database(), concat(objects.selectText(), " WHERE \"_key\" = ?1"));
  row.bind(1, key);
  const bool exists = row.step();
  if (row.failed()) return row.error(StoreErrorCode::operation, "The record could not be read");
  if (!exists) return missingObject(id);
  return objects.registerNew(row);
}

bool NSManagedObjectContext::hasChanges() const {
  requireCurrent();
  return !state_->metadata.empty() || std::any_of(state_->entities.begin(), state_->entities.end(),
                                                  [](const auto& entry) { return entry.second.hasChanges(); });
}

Result<std::optional<std::string>> NSManagedObjectContext::metadata(std::string_view name) {
  requireCurrent();
  if (const auto unsaved = state_->metadata.find(name); unsaved != state_->metadata.end()) return {unsaved->second};
  Store* store = coordinator_->store();
  if (!store) return coordinator_->whyNoStore("fetch");
  return store->metadata(name);
}

void NSManagedObjectContext::setMetadata(std::string_view name, std::string value) {
  requireCurrent();
  state_->metadata.insert_or_assign(std::string(name), std::move(value));
}

const EntityObjects* NSManagedObjectContext::objectsOf(std::string_view name) const {
  requireCurrent();
  const auto found = state_->entities.find(coordinator_->model().entity(name));
  return found == state_->entities.end() ? nullptr : &found->second;
}

bool NSManagedObjectContext::hasChanges(std::string_view entity) const {
  const EntityObjects* objects = objectsOf(entity);
  return objects && objects->hasChanges();
}

std::size_t NSManagedObjectContext::pendingInsertions(std::string_view entity) const {
  const EntityObjects* objects = objectsOf(entity);
  return objects ? objects->inserted().size() : 0;
}

std::optional<Error> NSManagedObjectContext::saveAfterFailure() {
  return state_->rowsAtOnce == kAllRows ? std::nullopt : save();
}

std::optional<Error> NSManagedObjectContext::save() {
  if (!hasChanges()) return std::nullopt;
  if (claim()) return coordinator_->whyNoStore("save");
  if (willSave_) willSave_();
  if (!state_->deferringSaves) return write();
  state_->saveDeferred = true;
  return std::nullopt;
}

void NSManagedObjectContext::writeDeferredSave() {
  if (!state_->saveDeferred) return;
  faultPoint("save: put off");
  if (const auto error = write(); error && lateFailure_) lateFailure_(*error);
}

std::optional<Error> NSManagedObjectContext::write() {
  state_->saveDeferred = false;
  if (!coordinator_->store()) return coordinator_->whyNoStore("save");
  std::size_t& rows = state_->rowsAtOnce;
  while (true) {
    if (auto error = writeAtMost(rows)) {
      rows = 1;
      return error;
    }
    if (!hasChanges()) break;
    // A try that fails is at most as large as all that went well before it.
    rows *= 2;
  }
  rows = kAllRows;
  return std::nullopt;
}

std::optional<Error> NSManagedObjectContext::writeAtMost(std::size_t rows) {
  std::vector<Part> parts;
  for (auto& [entity, objects] : state_->entities) {
    const EntityObjects::Portion portion = rows > 0 ? objects.portion(rows) : EntityObjects::Portion{};
    if (portion.size() > 0) parts.push_back({objects, portion, {}});
    rows -= std::min(rows, portion.size());
  }
  Store& store = *coordinator_->store();
  if (auto error = commit(store, parts, state_->metadata)) return error;
  faultPoint("save: committed");
  state_->metadata.clear();
  // Certain only now: until the commit everything stayed pending, whatever became of the transaction.
  for (Part& part : parts) {
    store.didCommit(part.objects.entity(), part.receipt);
    part.objects.didSave(part.portion, part.receipt.firstKey);
  }
  return std::nullopt;
}

}  // namespace tarvo::platform
