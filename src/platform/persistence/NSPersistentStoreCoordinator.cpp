#include "platform/persistence/NSPersistentStoreCoordinator.h"

#include "platform/foundation/Text.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

NSPersistentStoreCoordinator::NSPersistentStoreCoordinator(std::shared_ptr<NSManagedObjectModel> model)
    : model_(std::move(model)) {}

NSPersistentStoreCoordinator::~NSPersistentStoreCoordinator() = default;

std::optional<Error> NSPersistentStoreCoordinator::addPersistentStore(std::string_view type,
                                                                      std::string_view configuration,
                                                                      const std::filesystem::path& url) {
  if (type != NSSQLiteStoreType)
    return storeError(StoreErrorCode::invalidType, concat("There are no stores of type ", type), url);
  if (store_) return storeError(StoreErrorCode::coreData, "The coordinator has a store already", url);
  const auto entities = model_->configuration(configuration);
  if (!entities)
    return storeError(StoreErrorCode::coreData, concat("The model has no configuration ", configuration), url);
  auto store = Store::open(url, *entities, model_->versionHash());
  if (!store) return store.error();
  store_ = std::move(*store);
  return std::nullopt;
}

bool NSPersistentStoreCoordinator::hasStore() const { return store_ != nullptr; }

std::optional<Error> NSPersistentStoreCoordinator::checkpoint() {
  return store_ ? store_->database().checkpoint() : std::nullopt;
}

}  // namespace tarvo::platform
