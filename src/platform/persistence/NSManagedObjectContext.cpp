#include "platform/persistence/NSManagedObjectContext.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <utility>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/EntityObjects.h"
#include "platform/persistence/RowCodec.h"
#include "platform/persistence/RowFetch.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

using Store = NSPersistentStoreCoordinator::Store;

struct NSManagedObjectContext::State {
  explicit State(NSManagedObjectContext& owner) : context(owner) {}

  EntityObjects& objects(const NSEntityDescription& entity) {
    return entities.try_emplace(&entity, entity, context).first->second;
  }

  std::size_t pendingRows() const {
    std::size_t rows = 0;
    for (const auto& [entity, objects] : entities)
      rows += objects.inserted().size() + objects.changed().size() + objects.deleted().size();
    return rows;
  }

  NSManagedObjectContext& context;
  bool putsOff = false;   ///< in a block given to `perform`
  bool isPutOff = false;  ///< a save waits to be written
  std::map<const NSEntityDescription*, EntityObjects> entities;
};

/// A request with what it is about.
struct NSManagedObjectContext::Request {
  const NSEntityDescription& entity;
  Store& store;
  FetchPlan plan;
};

namespace {

/// Puts what is unsaved and matches into the sorted result.
void mergePending(const EntityObjects& objects, const FetchPlan& plan, Objects& found) {
  const auto precedes = [&](const auto& a, const auto& b) { return plan.precedes(*a, *b); };
  if (!plan.rowsAreSorted() && !std::is_sorted(found.begin(), found.end(), precedes))
    std::sort(found.begin(), found.end(), precedes);
  const auto saved = std::ssize(found);
  for (const EntityObjects::Pending* pending : {&objects.changed(), &objects.inserted()})
    for (const auto& [key, object] : *pending)
      if (plan.matches(*object)) found.push_back(object);
  std::sort(found.begin() + saved, found.end(), precedes);
  std::inplace_merge(found.begin(), found.begin() + saved, found.end(), precedes);
}

/// Rows that match as the file has them, corrected by what is unsaved.
Result<std::int64_t> countMatches(Store& store, const EntityObjects& objects, const FetchPlan& plan) {
  auto matches = store.matchingRows(objects.entity(), plan);
  if (!matches) return matches;
  std::int64_t count = *matches;
  for (const EntityObjects::Pending* pending : {&objects.changed(), &objects.deleted()})
    for (const auto& [key, object] : *pending) {
      auto counted = store.rowMatches(objects.entity(), plan, key);
      if (!counted) return counted.error();
      if (*counted) --count;
    }
  for (const EntityObjects::Pending* pending : {&objects.changed(), &objects.inserted()})
    count += std::count_if(pending->begin(), pending->end(), [&](const auto& p) { return plan.matches(*p.second); });
  return count;
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
    state_->putsOff = true;
    block();
    state_->putsOff = false;
    if (performing_.fetch_sub(1) == 1) writeWhatWasPutOff();
  });
}

void NSManagedObjectContext::performAndWait(const std::function<void()>& block) {
  queue_.syncReentrant([&] {
    const bool insideQueuedBlock = std::exchange(state_->putsOff, false);
    if (!insideQueuedBlock) writeWhatWasPutOff();
    block();
    state_->putsOff = insideQueuedBlock;
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
  mergePending(objects, plan, *found);
  if (request.fetchLimit > 0 && found->size() > request.fetchLimit) found->resize(request.fetchLimit);
  return found;
}

Result<std::size_t> NSManagedObjectContext::count(const NSFetchRequest& request) {
  auto compiledRequest = compiled(request, "count");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  if (plan.isEmpty()) return std::size_t{0};

  const EntityObjects& objects = state_->objects(entity);
  auto counted = plan.hasConditions() ? countMatches(store, objects, plan) : store.rowCount(entity);
  if (!counted) return counted.error();
  if (!plan.hasConditions()) *counted += std::ssize(objects.inserted()) - std::ssize(objects.deleted());
  const auto all = static_cast<std::size_t>(std::max<std::int64_t>(*counted, 0));
  return request.fetchLimit > 0 ? std::min(all, request.fetchLimit) : all;
}

Result<StoredRows> NSManagedObjectContext::rows(const NSFetchRequest& request) {
  auto compiledRequest = compiled(request, "fetch");
  if (!compiledRequest) return compiledRequest.error();
  auto& [entity, store, plan] = *compiledRequest;
  writeWhatWasPutOff();
  StoredRows rows(*this, std::move(plan));
  if (rows.plan_.isEmpty()) return rows;
  auto all = store.rowCount(entity);
  if (!all) return all.error();

  // One view of the file, whatever another process adds meanwhile.
  if (auto error = store.database().run("BEGIN", StoreErrorCode::operation)) return *error;
  Transaction view(store.database());
  Execution last(store.database(), concat("SELECT max(\"_key\") FROM \"", entity.name, "\""));
  if (!last.step()) return last.error(StoreErrorCode::operation, "The keys could not be read");
  rows.lastKey_ = last.integer(0);
  auto leavesOut = rows.plan_.hasConditions() ? store.leavesRowsOut(entity, rows.plan_) : Result<bool>(false);
  if (!leavesOut) return leavesOut.error();
  auto matching = *leavesOut ? store.matchingRows(entity, rows.plan_) : all;
  if (!matching) return matching.error();
  rows.count_ = static_cast<std::size_t>(*matching);
  // Finding many rows by an index and sorting them costs more than going through all in order, above all memory.
  if (!*leavesOut)
    rows.way_ = StoredRows::Way::all;
  else if (*matching > *all / 4)
    rows.way_ = StoredRows::Way::inOrder;
  return rows;
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
  (void)claim();
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

  RowCodec codec(*id.entity, id.entity->allAttributes());
  Execution row(store->database(), concat(codec.selectText(), " WHERE \"_key\" = ?1"));
  row.bind(1, key);
  const bool exists = row.step();
  if (row.failed()) return row.error(StoreErrorCode::operation, "The record could not be read");
  if (!exists) return missingObject(id);
  auto object = objects.registerNew(key, id.entity->allAttributes());
  codec.read(row, *object);
  return object;
}

bool NSManagedObjectContext::hasChanges() const {
  requireCurrent();
  return std::any_of(state_->entities.begin(), state_->entities.end(),
                     [](const auto& entry) { return entry.second.hasChanges(); });
}

std::optional<Error> NSManagedObjectContext::save() {
  if (!hasChanges()) return std::nullopt;
  if (claim()) return coordinator_->whyNoStore("save");
  if (!state_->putsOff) return write();
  state_->isPutOff = true;
  return std::nullopt;
}

void NSManagedObjectContext::writeWhatWasPutOff() {
  if (!state_->isPutOff) return;
  if (const auto error = write(); error && lateSaveFailure_) lateSaveFailure_(*error);
}

std::optional<Error> NSManagedObjectContext::write() {
  state_->isPutOff = false;
  Store* store = coordinator_->store();
  if (!store) return coordinator_->whyNoStore("save");

  std::vector<std::pair<EntityObjects*, Store::Receipt>> written;
  {
    Transaction transaction(store->database());
    // A single row is a transaction by itself.
    const bool isSingle = state_->pendingRows() == 1;
    if (!isSingle)
      if (auto error = transaction.begin()) return error;
    for (auto& [entity, objects] : state_->entities) {
      if (!objects.hasChanges()) continue;
      auto& receipt = written.emplace_back(&objects, Store::Receipt{}).second;
      if (auto error = store->write(objects, receipt)) return error;
    }
    if (!isSingle)
      if (auto error = transaction.commit()) return error;
  }
  // Certain only now: until the commit everything stayed pending, whatever became of the transaction.
  for (auto& [objects, receipt] : written) {
    store->didCommit(objects->entity(), receipt);
    objects->didSave(receipt.firstKey);
  }
  return std::nullopt;
}

}  // namespace tarvo::platform
