#include "platform/persistence/NSPersistentStoreCoordinator.h"

#include <system_error>
#include <utility>

#include "platform/foundation/FileLock.h"
#include "platform/foundation/Text.h"
#include "platform/persistence/Store.h"

namespace tarvo::platform {

NSPersistentStoreCoordinator::NSPersistentStoreCoordinator(std::shared_ptr<NSManagedObjectModel> model,
                                                           WriteRight::Patience patience)
    : model_(std::move(model)), patience_(patience), forks_(FileLock::forks()) {}

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
  auto store = Store::open(url, *entities, model_->version());
  if (!store) return store.error();
  store_ = std::move(*store);
  configuration_ = configuration;
  right_ = std::make_unique<WriteRight>(url, patience_);
  return std::nullopt;
}

NSPersistentStoreCoordinator::Store* NSPersistentStoreCoordinator::store() {
  const bool isUsable = store_ && standing_ != Standing::keptOut && forks_ == FileLock::forks();
  return isUsable && !store_->database().isLost() ? store_.get() : nullptr;
}

bool NSPersistentStoreCoordinator::hasStore() { return store() && store_->database().isUsable(/*toWrite=*/true); }

std::optional<Error> NSPersistentStoreCoordinator::claim(std::optional<WriteRight::Span> wait) {
  if (!store_ || forks_ != FileLock::forks() || store_->database().isLost()) return noStoreError("save");
  if (standing_ == Standing::writes) return std::nullopt;
  auto refusal = right_->take(wait);
  if (!refusal && (refusal = store_->beginWriting())) right_->giveBack();
  if (!refusal) {
    untold_.reset();
  } else if (standing_ == Standing::reads) {
    untold_ = refusal;
  }
  standing_ = refusal ? Standing::keptOut : Standing::writes;
  keptOutBecause_ = refusal ? refusal->localizedDescription : "";
  return refusal;
}

std::optional<Error> NSPersistentStoreCoordinator::renewStore(const std::function<std::optional<Error>()>& between) {
  if (auto refusal = claim()) return refusal;
  const std::filesystem::path file = store_->database().file();
  store_->database().keepLogOnClose();  // else SQLite would free its blocks with what they hold
  store_.reset();
  auto failure = between();
  auto renewed = Store::open(file, *model_->configuration(configuration_), model_->version(), /*hasRight=*/true);
  if (!renewed) return failure ? failure : renewed.error();
  store_ = std::move(*renewed);
  auto unwritable = store_->beginWriting();
  if (unwritable) store_.reset();
  return failure ? failure : unwritable;
}

Error NSPersistentStoreCoordinator::whyNoStore(std::string_view operation) {
  if (store_ && store_->database().hasUntoldLoss())
    return store_->database().error(StoreErrorCode::operation, concat("It cannot perform a ", operation, " operation"));
  if (untold_) return *std::exchange(untold_, std::nullopt);
  return noStoreError(operation);
}

std::optional<Error> NSPersistentStoreCoordinator::checkpoint() {
  return store() && standing_ == Standing::writes ? store_->database().checkpoint() : std::nullopt;
}

std::optional<Error> NSPersistentStoreCoordinator::flush() {
  return store() && standing_ == Standing::writes ? store_->database().flush() : std::nullopt;
}

std::optional<std::string> NSPersistentStoreCoordinator::obstacle() {
  if (!store_ || hasStore()) return std::nullopt;
  return standing_ == Standing::keptOut ? keptOutBecause_
                                        : "The store was removed, replaced or cut short, or is a parent's";
}

std::uint64_t NSPersistentStoreCoordinator::bytesOnDisk(const std::filesystem::path& url) {
  std::uint64_t bytes = 0;
  for (const char* ending : {"", "-wal"}) {
    std::error_code failure;
    const std::uintmax_t size = std::filesystem::file_size(url.native() + ending, failure);
    if (!failure) bytes += size;
  }
  return bytes;
}

}  // namespace tarvo::platform
