#include "store/ObjectStore.h"

#include <tarvo/platform/Environment.h>
#include <tarvo/platform/UserDefaults.h>

#include <span>

#include "log/Log.h"
#include "marrowgateTarvoDb.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/Text.h"
#include "settings/Names.h"
#include "store/Attributes.h"
#include "store/Locations.h"
#include "store/PastTrips.h"
#include "store/PointOfInterest.h"
#include "store/Users.h"

namespace tarvo {

using platform::Bundle;
using platform::Error;
using platform::fatalError;
using platform::NSManagedObjectContext;
using platform::NSManagedObjectModel;
using platform::NSPersistentStoreCoordinator;

namespace {

constexpr const char* kModelName = "Marrowgate-Tarvo-db";
constexpr const char* kModelExtension = "momd";
constexpr const char* kConfiguration = "ConfigurationForLocationsAndUsers";

/// The classes address attributes by position: a model in another order would silently mix them up.
template <class Class>
void setEntityClass(NSManagedObjectModel& model, std::span<const attribute::Declaration> declared) {
  const platform::NSEntityDescription* entity = model.entity(Class::kEntity);
  bool agrees = entity != nullptr && entity->attributes.size() == declared.size();
  for (std::size_t i = 0; agrees && i < declared.size(); ++i)
    agrees = entity->attributes[i].name == declared[i].name && entity->attributes[i].type == declared[i].type;
  if (!agrees) fatalError(platform::concat("the object model and the class ", Class::kEntity, " do not agree"));
  model.setClass(Class::kEntity,
                 [](const platform::NSEntityDescription& description) -> std::shared_ptr<platform::NSManagedObject> {
                   return std::make_shared<Class>(description);
                 });
}

/// A second call changes nothing.
void registerModelResources() {
  Bundle::add(names::kFrameworkBundle, {{kModelName, kModelExtension, resources::marrowgateTarvoDb}});
}

void setEntityClasses(NSManagedObjectModel& model) {
  setEntityClass<Locations>(model, attribute::locations::kAll);
  setEntityClass<PastTrips>(model, attribute::past_trips::kAll);
  setEntityClass<PointOfInterest>(model, attribute::points_of_interest::kAll);
  setEntityClass<Users>(model, attribute::users::kAll);
}

}  // namespace

const std::filesystem::path& ObjectStore::applicationDocumentsDirectory() {
  std::call_once(directoryOnce_, [this] {
    const auto directories = platform::documentDirectories();
    if (directories.empty()) fatalError("there is no document directory for the object store");
    directory_ = directories.back();
  });
  return directory_;
}

const std::shared_ptr<NSManagedObjectModel>& ObjectStore::managedObjectModel() {
  std::call_once(modelOnce_, [this] {
    registerModelResources();
    const Bundle* bundle = Bundle::withIdentifier(names::kFrameworkBundle);
    if (bundle == nullptr) fatalError(platform::concat("bundle ", names::kFrameworkBundle, " not found"));
    const auto url = bundle->url(kModelName, kModelExtension);
    if (!url) fatalError(platform::concat("object model ", kModelName, ".", kModelExtension, " not found"));
    model_ = NSManagedObjectModel::load(*url);
    if (!model_) fatalError(platform::concat("object model ", url->text, " cannot be loaded"));
    setEntityClasses(*model_);
  });
  return model_;
}

const std::shared_ptr<NSPersistentStoreCoordinator>& ObjectStore::persistentStoreCoordinator() {
  std::call_once(coordinatorOnce_, [this] {
    coordinator_ = std::make_shared<NSPersistentStoreCoordinator>(managedObjectModel(), patience_);
    openStore();
  });
  return coordinator_;
}

void ObjectStore::openStore() {
  const auto failure = coordinator_->addPersistentStore(platform::NSSQLiteStoreType, kConfiguration,
                                                        applicationDocumentsDirectory() / kFileName);
  if (!failure) return;
  Error wrapped;
  wrapped.domain = "YOUR_ERROR_DOMAIN";
  wrapped.code = 9999;
  wrapped.localizedDescription = "Failed to initialize the application's saved data";
  wrapped.userInfo = {
      {platform::NSLocalizedDescriptionKey, wrapped.localizedDescription},
      {platform::NSLocalizedFailureReasonErrorKey,
       "There was an error creating or loading the application's saved data."},
      {platform::NSUnderlyingErrorKey, failure->description()},
  };
  // Deliberate: the coordinator is kept without a store, and opening is not tried again.
  Log::error("Unresolved error ", platform::errorAndUserInfo(wrapped));
  lastError_.set(failure->description());
}

NSManagedObjectContext& ObjectStore::managedObjectContext() {
  std::call_once(contextOnce_, [this] {
    context_ = std::make_unique<NSManagedObjectContext>(persistentStoreCoordinator());
    context_->setLateFailure([this](const Error& error) { fail(error); });
    if (willSave_) context_->setWillSave([this] { willSave_(*context_); });
  });
  return *context_;
}

void ObjectStore::saveContext() {
  Log::debug("LocationManager:saveContext [coreData] mainThread:", mainThread());
  NSManagedObjectContext& context = managedObjectContext();
  if (!context.hasChanges()) return;
  if (const auto error = context.save()) {
    fail(*error);
    return;
  }
  // A save that waits for the end of its block has not succeeded yet.
  if (!context.hasChanges()) lastError_.set(std::nullopt);
  platform::UserDefaults::standard().synchronize();  // there may be room again
}

void ObjectStore::saveAfterFailure() {
  NSManagedObjectContext& context = managedObjectContext();
  const bool pending = context.hasChanges();
  if (const auto error = context.saveAfterFailure())
    fail(*error);
  else if (pending && !context.hasChanges())
    lastError_.set(std::nullopt);
}

void ObjectStore::saveQuietly() {
  if (const auto error = managedObjectContext().save()) fail(*error);
}

void ObjectStore::fail(const Error& error) {
  Log::error("Unresolved error ", platform::errorAndUserInfo(error));
  lastError_.set(error.description());
}

std::uint64_t ObjectStore::bytes() {
  return NSPersistentStoreCoordinator::bytesOnDisk(applicationDocumentsDirectory() / kFileName);
}

}  // namespace tarvo
