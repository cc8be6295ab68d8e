#include "facade/TarvoCore.h"

#include "log/Log.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/HostCall.h"
#include "records/LatestPrediction.h"

namespace tarvo {

Tarvo::Core::Core() : locationManager(LocationManager::sharedInstance()), delegate(nullptr) {}

void Tarvo::Core::locationManagerDidReceiveNewLocations(LocationManager&,
                                                        const std::vector<platform::CLLocation>& newLocations) {
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    platform::callHost("tarvoDidReceiveNewLocations", [&] { host->tarvoDidReceiveNewLocations(self, newLocations); });
  }
}

void Tarvo::Core::locationManagerOnRouteMatched(LocationManager&, const LocationsHistory& locationsHistory) {
  if (stop_route_match) return;
  Log::debug("Tarvo locationManagerOnRouteMatched count : ", locationsHistory.pasttrips.size());
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    platform::callHost("tarvoOnRouteMatched", [&] { host->tarvoOnRouteMatched(self, locationsHistory); });
  }
}

void Tarvo::Core::onPredictionUpdateDelegate() {
  if (stop_prediction_update) return;
  if (const auto host = delegate.get()) {
    Tarvo self(shared_from_this());
    const Trip trip = latestPrediction().get();
    platform::callHost("tarvoOnPredictionUpdate", [&] { host->tarvoOnPredictionUpdate(self, trip); });
  }
}

std::optional<std::string> infoPropertyListText(std::string_view key) {
  return platform::findString(platform::Bundle::main().infoDictionary(), key);
}

}  // namespace tarvo
