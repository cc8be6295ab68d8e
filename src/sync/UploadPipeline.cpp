#include "sync/UploadPipeline.h"

#include <algorithm>
#include <utility>

#include <tarvo/ActivationMode.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Clock.h>

#include "log/Log.h"
#include "net/BackendAddress.h"
#include "settings/Settings.h"
#include "sync/DeviceRegistration.h"

namespace tarvo {

using platform::concat;

namespace {

/// What is needed of a batch once its records may change again.
struct Batch {
  std::string json;
  std::int64_t first = 0;
  std::int64_t last = 0;
};

/// Only inside a block of the context, so that the text and both ends are of one moment.
Batch batchOf(const Locations::List& locations, std::string_view uuid) {
  return {Locations::convertToString(locations, uuid), locations.front()->index().value_or(0),
          locations.back()->index().value_or(0)};
}

}  // namespace

UploadPipeline::UploadPipeline(ObjectStore& store, NetworkManager& client, DeviceRegistration& registration,
                               SyncState& state)
    : store_(store), client_(client), registration_(registration), state_(state) {}

void UploadPipeline::startPass() {
  Settings& settings = Settings::shared();
  if (settings.activateStatus.get() < mode::kBackendBackground) return;
  const auto attempt = settings.uploadChannel.tryTake(platform::Clock::current()->now());
  Log::debug("LocationManager:sendDataInBatchToRemoteWebServer [loc]=====CALLED======CANAL===", attempt.wasLocked,
             "=====", attempt.elapsed.count(), "=======");
  if (!attempt.taken) return;
  if (state_.networkManagerReceivedSessionError.load()) {
    settings.uploadChannel.release();
    return;
  }
  const Locations::List awaiting = getSentWithoutACKLocations();
  if (!awaiting.empty())
    resendAllSentWithoutACKData(awaiting);
  else
    sendAllUnsentDataToRemoteWebServer();
}

std::optional<std::string> UploadPipeline::userOrRegistration() {
  if (auto identity = Settings::shared().identity()) return std::move(identity->name);
  // The channel stays held: the first batch of a fresh device leaves once it is stale.
  state_.setApiKey(registration_.checkAndRegisterUser());
  return std::nullopt;
}

Locations::List UploadPipeline::getSentWithoutACKLocations() {
  Locations::List locations;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    (void)context.claim();  // what is posted gets marks: another process that writes posts by itself
    locations = Locations::getSentWithoutACKLocations(context, Locations::Unsaved::leftOut);
    if (locations.empty())
      Log::debug("LocationManager:getSentWithoutACKLocations [net] [] mainThread:", mainThread());
    else
      Log::debug("LocationManager:getSentWithoutACKLocations [net] from:", locations.front()->index(),
                 " to:", locations.back()->index(), " mainThread:", mainThread());
  });
  return locations;
}

Locations::List UploadPipeline::getUnsentLocations() {
  Locations::List locations;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    (void)context.claim();
    locations = Locations::getUnsentLocations(context, Locations::Unsaved::leftOut);
    if (locations.empty())
      Log::debug("LocationManager:getUnsentLocations [net] [] mainThread:", mainThread());
    else
      Log::debug("LocationManager:getUnsentLocations [net] from:", locations.front()->index(),
                 " to:", locations.back()->index(), " mainThread:", mainThread());
  });
  return locations;
}

void UploadPipeline::sendAllUnsentDataToRemoteWebServer() {
  const auto uuid = userOrRegistration();
  if (!uuid) return;
  auto& context = store_.managedObjectContext();
  Batch batch;
  std::vector<platform::NSManagedObjectID> identifiers;
  context.performAndWait([&] {
    posted_ = getUnsentLocations();
    if (posted_.empty()) return;
    Log::debug("LocationManager:sendAllUnsentDataToRemoteWebServer [net] from:", posted_.front()->index(),
               " to:", posted_.back()->index(), " mainThread:", mainThread());
    batch = batchOf(posted_, *uuid);
    identifiers.reserve(posted_.size());
    for (const auto& location : posted_) identifiers.push_back(location->objectID());
  });
  if (identifiers.empty()) {
    Settings::shared().uploadChannel.release();
    return;
  }
  const std::size_t positions = identifiers.size();
  for (auto& identifier : identifiers)
    context.perform([this, identifier = std::move(identifier)] { markLocationAsSentWithoutACKWithID(identifier); });
  post(std::move(batch.json), batch.first, batch.last, positions);
}

void UploadPipeline::markLocationAsSentWithoutACKWithID(const platform::NSManagedObjectID& locationID) {
  Log::debug("LocationManager:markLocationAsSentWithoutACKWithID [net] id:", locationID, " mainThread:", mainThread());
  Locations::markLocationAsSentWithoutACKWithID(locationID, store_.managedObjectContext());
  store_.saveContext();
}

void UploadPipeline::resendAllSentWithoutACKData(const Locations::List& locations) {
  const auto uuid = userOrRegistration();
  if (!uuid) return;
  Log::debug("LocationManager:resendAllSentWithoutACKData :count = ", locations.size());
  if (locations.empty()) return;
  // The pass of an acknowledgement runs inside a block; it follows one outside, which has asked for the name.
  const auto lookup =
      store_.managedObjectContext().isCurrent() ? platform::NameLookup::known : platform::NameLookup::ask;
  if (!isServerReachable(/*viaWiFi=*/false, Settings::shared().remoteWebServerURL(), lookup)) return;
  Batch batch;
  store_.managedObjectContext().performAndWait([&] {
    Log::debug("LocationManager:resendAllSentWithoutACKData [net] from:", locations.front()->index(),
               " to:", locations.back()->index(), " mainThread:", mainThread());
    batch = batchOf(locations, *uuid);
  });
  post(std::move(batch.json), batch.first, batch.last, locations.size());
}

void UploadPipeline::resendAllSentWithoutACKData(const std::vector<LocationRecord>& locations) {
  std::optional<std::int64_t> first, last;
  for (const LocationRecord& location : locations) {
    if (!location.index) continue;
    first = std::min(first.value_or(*location.index), *location.index);
    last = std::max(last.value_or(*location.index), *location.index);
  }
  Locations::List awaiting;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    (void)context.claim();
    awaiting = Locations::getSentWithoutACKLocations(context, Locations::Unsaved::leftOut);
    std::erase_if(awaiting, [&](const auto& location) {
      const auto index = location->index();
      return !index || index < first || index > last;
    });
  });
  resendAllSentWithoutACKData(awaiting);
}

void UploadPipeline::post(std::string json, std::int64_t first, std::int64_t last, std::size_t positions) {
  batchesPosted_.fetch_add(1);
  positionsPosted_.fetch_add(positions);
  client_.sendDataInBatchToRemoteWebServer(std::move(json), concat(first), concat(last));
}

void UploadPipeline::acknowledge(std::string_view locationIndex, std::string_view firstLoc) {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    const Locations::List acknowledged = std::exchange(posted_, {});  // in use until it is saved
    // Frees the channel and starts the next batch from inside, before this acknowledgement is saved.
    Locations::markLocationAsSentUntilIndex(locationIndex, context, firstLoc);
    store_.saveContext();
  });
}

}  // namespace tarvo
