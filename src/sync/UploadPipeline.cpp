#include "sync/UploadPipeline.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <random>
#include <utility>

#include <tarvo/ActivationMode.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Clock.h>
#include <tarvo/platform/SystemLog.h>

#include "log/Log.h"
#include "net/BackendAddress.h"
#include "platform/foundation/FaultPoint.h"
#include "settings/Settings.h"
#include "sync/DeviceRegistration.h"

namespace tarvo {

using platform::concat;

namespace {

/// Under which the store keeps the day's bytes.
constexpr std::string_view kBytesOfDay = "UploadedBytes";

UploadGate::Draw evenDraw() {
  auto generator = std::make_shared<platform::Guarded<std::minstd_rand>>(std::minstd_rand(std::random_device()()));
  return [generator] {
    return generator->update([](auto& random) { return std::uniform_real_distribution<>()(random); });
  };
}

/// Whether this machine knows a way to the backend or, its name not being known, to anywhere. Asks no resolver.
bool knowsWayToBackend() {
  const std::string backend = Settings::shared().remoteWebServerURL();
  // The other two are addresses that nobody has: what is asked for is the default route.
  for (const std::string_view target :
       {std::string_view(backend), std::string_view("192.0.2.1"), std::string_view("2001:db8::1")}) {
    const auto flags = platform::SCNetworkReachabilityGetFlags(target, platform::NameLookup::known);
    if (flags && (*flags & platform::kSCNetworkReachabilityFlagsReachable) != 0) return true;
  }
  return false;
}

/// An answer that nobody gave is told apart from a way that is not there.
DeliveryError classOf(DeliveryError error) {
  return error == DeliveryError::unreachable && !knowsWayToBackend() ? DeliveryError::offline : error;
}

std::int64_t indexOf(std::string_view text) {
  std::int64_t index = 0;
  std::from_chars(text.data(), text.data() + text.size(), index);
  return index;
}

/// What is needed of a batch once its records may change again.
struct Batch {
  std::string json;
  std::int64_t first = 0;
  std::int64_t last = 0;
};

/// Only inside a block of the context, so that the text and both ends are of one moment.
Batch batchOf(const Locations::List& positions, std::string_view uuid) {
  return {Locations::convertToString(positions, uuid), positions.front()->index().value_or(0),
          positions.back()->index().value_or(0)};
}

/// The first and the last index of positions, behind `opening`.
void logRange(std::string_view opening, const Locations::List& positions) {
  Log::debug(opening, positions.front()->index(), " to:", positions.back()->index(), " mainThread:", mainThread());
}

/// What `fetch` gives, told in the log. Takes the right to write before, since what is posted gets marks: another
/// process that writes posts by itself.
Locations::List toPost(ObjectStore& store, Locations::List (*fetch)(Locations::Context&), std::string_view none,
                       std::string_view opening) {
  auto& context = store.managedObjectContext();
  (void)context.claim();
  auto positions = fetch(context);
  if (positions.empty())
    Log::debug(none, mainThread());
  else
    logRange(opening, positions);
  return positions;
}

}  // namespace

UploadPipeline::UploadPipeline(ObjectStore& store, NetworkManager& client, DeviceRegistration& registration,
                               Ledger& ledger)
    : store_(store),
      client_(client),
      registration_(registration),
      ledger_(ledger),
      gate_(evenDraw(), knowsWayToBackend) {}

bool UploadPipeline::mayStart(UploadGate::Pass pass) {
  const DeliveryOptions options = Settings::shared().deliveryOptions.get();
  auto& context = store_.managedObjectContext();
  if (pass == UploadGate::Pass::event && context.isCurrent() && acknowledgesFullBatch_)
    pass = UploadGate::Pass::afterFullBatch;
  if (options.meteredBytesPerDay && !gate_.isRestored()) {
    context.performAndWait([&] {
      if (auto kept = context.metadata(kBytesOfDay)) gate_.restore(kept->value_or(""));
    });
  }
  return gate_.admits(pass, options);
}

void UploadPipeline::startPass(UploadGate::Pass pass) {
  Settings& settings = Settings::shared();
  if (settings.activateStatus.get() < mode::kBackendBackground || !mayStart(pass)) return;
  const auto attempt = settings.uploadChannel.tryTake(platform::Clock::current()->now());
  Log::debug("LocationManager:sendDataInBatchToRemoteWebServer [loc]=====CALLED======CANAL===", attempt.wasLocked,
             "=====", attempt.elapsed.count(), "=======");
  if (!attempt.taken) return;
  platform::faultPoint("upload: channel taken");
  if (networkManagerReceivedSessionError.load()) {
    settings.uploadChannel.release();
    return;
  }
  Locations::List awaiting;
  store_.managedObjectContext().performAndWait([&] { awaiting = getSentWithoutACKLocations(); });
  if (!awaiting.empty())
    resendAllSentWithoutACKData(awaiting);
  else
    sendAllUnsentDataToRemoteWebServer();
}

void UploadPipeline::forget() {
  posted_.clear();
  keptUpTo_ = -1;
  gate_.forget();
  accepted_ = true;
  networkManagerReceivedSessionError = false;
  batchesPosted_ = 0;
  positionsPosted_ = 0;
}

std::optional<std::string> UploadPipeline::userOrRegistration() {
  if (auto identity = Settings::shared().identity()) return std::move(identity->name);
  // The channel stays held: the first batch of a fresh device leaves once it is stale.
  registration_.apiKey.set(registration_.checkAndRegisterUser());
  return std::nullopt;
}

Locations::List UploadPipeline::getSentWithoutACKLocations() {
  return toPost(store_, Locations::getSentWithoutACKLocations,
                "LocationManager:getSentWithoutACKLocations [net] [] mainThread:",
                "LocationManager:getSentWithoutACKLocations [net] from:");
}

Locations::List UploadPipeline::getUnsentLocations() {
  return toPost(store_, Locations::getUnsentLocations, "LocationManager:getUnsentLocations [net] [] mainThread:",
                "LocationManager:getUnsentLocations [net] from:");
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
    logRange("LocationManager:sendAllUnsentDataToRemoteWebServer [net] from:", posted_);
    batch = batchOf(posted_, *uuid);
    keep(batch.last);
    identifiers.reserve(posted_.size());
    for (const auto& position : posted_) identifiers.push_back(position->objectID());
  });
  if (identifiers.empty()) {
    Settings::shared().uploadChannel.release();
    return;
  }
  const std::size_t count = identifiers.size();
  platform::faultPoint("upload: batch made");
  for (auto& identifier : identifiers)
    context.perform([this, identifier = std::move(identifier)] { markLocationAsSentWithoutACKWithID(identifier); });
  platform::faultPoint("upload: marks queued");
  post(std::move(batch.json), batch.first, batch.last, count);
}

void UploadPipeline::markLocationAsSentWithoutACKWithID(const platform::NSManagedObjectID& locationID) {
  Log::debug("LocationManager:markLocationAsSentWithoutACKWithID [net] id:", locationID, " mainThread:", mainThread());
  Locations::markLocationAsSentWithoutACKWithID(locationID, store_.managedObjectContext());
  platform::faultPoint("upload: marked");
  store_.saveContext();
}

void UploadPipeline::resendAllSentWithoutACKData(const Locations::List& positions) {
  const auto uuid = userOrRegistration();
  if (!uuid) return;
  Log::debug("LocationManager:resendAllSentWithoutACKData :count = ", positions.size());
  if (positions.empty()) return;
  // The pass of an acknowledgement runs inside a block; it follows one outside, which has asked for the name.
  const auto lookup =
      store_.managedObjectContext().isCurrent() ? platform::NameLookup::known : platform::NameLookup::ask;
  Settings& settings = Settings::shared();
  if (!isServerReachable(/*viaWiFi=*/false, settings.remoteWebServerURL(), lookup)) {
    if (settings.deliveryOptions.get().confirmed) {
      batchFailed({.confirmed = true, .error = DeliveryError::offline});
      settings.uploadChannel.release();
    } else {
      ledger_.didFail(DeliveryError::offline, settings.uploadChannel.takenAt() + UploadChannel::kExpiry);
    }
    return;
  }
  Batch batch;
  store_.managedObjectContext().performAndWait([&] {
    logRange("LocationManager:resendAllSentWithoutACKData [net] from:", positions);
    batch = batchOf(positions, *uuid);
    keep(batch.last);
  });
  post(std::move(batch.json), batch.first, batch.last, positions.size());
}

void UploadPipeline::resendAllSentWithoutACKData(const std::vector<LocationRecord>& positions) {
  std::optional<std::int64_t> first, last;
  for (const LocationRecord& position : positions) {
    if (!position.index) continue;
    first = std::min(first.value_or(*position.index), *position.index);
    last = std::max(last.value_or(*position.index), *position.index);
  }
  Locations::List awaiting;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    (void)context.claim();
    awaiting = Locations::getSentWithoutACKLocations(context);
    std::erase_if(awaiting, [&](const auto& position) {
      const auto index = position->index();
      return !index || index < first || index > last;
    });
  });
  resendAllSentWithoutACKData(awaiting);
}

void UploadPipeline::keep(std::int64_t last) {
  if (last <= keptUpTo_ || !Settings::shared().deliveryOptions.get().confirmed) return;
  // A disk that cannot be flushed holds nothing up: without a power cut all is there.
  if (!store_.managedObjectContext().coordinator().flush()) keptUpTo_ = last;
}

void UploadPipeline::post(std::string json, std::int64_t first, std::int64_t last, std::size_t positions) {
  gate_.posted();
  ledger_.didTry(platform::Clock::current()->now());
  batchesPosted_.fetch_add(1);
  positionsPosted_.fetch_add(positions);
  client_.sendDataInBatchToRemoteWebServer(std::move(json), concat(first), concat(last));
  platform::faultPoint("upload: posted");
}

void UploadPipeline::acknowledge(std::string_view locationIndex, std::string_view firstLoc, const BatchEnd& end) {
  const Health::Range range{indexOf(firstLoc), indexOf(locationIndex)};
  const DeliveryError error = end.answered ? DeliveryError::none : classOf(end.error);
  gate_.addBytes(end.bytes);
  if (end.answered) gate_.succeeded();
  if (end.confirmed) tellAccepted(true);
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    ledger_.didAcknowledge(range, end.answered, platform::Clock::current()->now());
    if (error != DeliveryError::none) ledger_.didFail(error, std::nullopt);
    if (end.bytes > 0) context.setMetadata(kBytesOfDay, gate_.kept());
    const Locations::List acknowledged = std::exchange(posted_, {});  // in use until it is saved
    acknowledgesFullBatch_ = range.last - range.first + 1 >= static_cast<std::int64_t>(Locations::kBatchLimit);
    // Frees the channel and starts the next batch from inside, before this acknowledgement is saved.
    Locations::markLocationAsSentUntilIndex(locationIndex, context, firstLoc);
    platform::faultPoint("acknowledgement: next pass started");
    acknowledgesFullBatch_ = false;
    store_.saveContext();
  });
}

void UploadPipeline::batchFailed(const BatchEnd& end) {
  gate_.addBytes(end.bytes);
  if (end.confirmed) gate_.failed(end.error, end.retryAfter);
  ledger_.didFail(classOf(end.error), std::nullopt);
  if (end.confirmed && end.error == DeliveryError::unauthorized) tellAccepted(false);
}

std::optional<platform::Date> UploadPipeline::nextTry() const {
  return gate_.nextTry(Settings::shared().deliveryOptions.get());
}

std::optional<FlushResult> UploadPipeline::obstacle() const {
  const Settings& settings = Settings::shared();
  if (settings.activateStatus.get() < mode::kBackendBackground) return FlushResult::modeForbids;
  if (!settings.identity() && settings.apiKeySecret.get().empty()) return FlushResult::notRegistered;
  if (networkManagerReceivedSessionError) return FlushResult::sessionFailed;
  if (gate_.isUsedUp(settings.deliveryOptions.get())) return FlushResult::bytesUsedUp;
  return std::nullopt;
}

void UploadPipeline::tellAccepted(bool accepted) {
  if (accepted_.exchange(accepted) == accepted) return;
  platform::NSLog(accepted ? "Tarvo : the backend accepts this device again"
                           : "Tarvo : the backend does not accept this device (401 or 403): its positions wait");
}

}  // namespace tarvo
