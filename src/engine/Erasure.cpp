#include <tarvo/ActivationMode.h>

#include "engine/EngineParts.h"
#include "log/Log.h"
#include "platform/device/KeptIdentifier.h"
#include "platform/foundation/FatalError.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/HomeErasure.h"
#include "platform/location/LocationServiceState.h"
#include "platform/urlsession/BackgroundSession.h"
#include "records/LatestPrediction.h"
#include "settings/Settings.h"

namespace tarvo {

using platform::faultPoint;
using platform::HomeErasure;

namespace {

/// For another process that has the right to write: a restart overlaps for moments.
constexpr platform::WriteRight::Span kLongestWait{2'000};

}  // namespace

std::optional<platform::Error> EngineParts::eraseEverything() {
  if (platform::SerialQueue::onAnyQueue()) platform::fatalError("everything is to be erased from inside a callback");
  if (auto error = HomeErasure::begin()) return error;
  auto& context = store.managedObjectContext();
  std::optional<platform::Error> refusal;
  context.performAndWait([&] { refusal = context.claim(kLongestWait); });
  if (refusal) return refusal;

  // Nobody begins anything new, and what was begun has ended, before anything goes.
  Settings& settings = Settings::shared();
  settings.activateStatus.set(mode::kDeactivated);
  settings.erasures.fetch_add(1);
  collection.stop();
  locationManager.stopMonitoringSignificantLocationChanges();
  state.serialNetworkDataQueue.sync([] {});
  Log::serialQueue().sync([] {});  // uploads of log files are begun behind the lines that they hold
  platform::BackgroundSession::forgetAll();
  platform::LocationServiceState::shared().forgetLatest();
  for (auto* queue : {&state.serialNetworkQueue, &state.serialQueueLastTrips, &state.serialQueuePOI})
    queue->sync([] {});
  state.serialQueue.sync([this] {
    geofencing.cancelGeofencing();
    state.geofencingStarted = false;
    state.geofenceCenter.set({});
  });
  state.serialQueueLocation.sync([] {});
  faultPoint("erase: stopped");

  platform::UserDefaults::standard().removeAll();
  settings.forgetUser();
  Log::forget();
  platform::forgetKeptIdentifier();
  latestPrediction().set({});
  registration.apiKey.set({});
  registration.alreadyReceivedUUID = false;
  faultPoint("erase: forgotten");

  std::optional<platform::Error> failure;
  context.performAndWait([&] {
    pipeline.forget();
    ledger.forget();
    failure = context.renewStore(HomeErasure::finish);
  });
  faultPoint("erase: done");
  return failure;
}

}  // namespace tarvo
