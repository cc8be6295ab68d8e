#pragma once

#include <atomic>
#include <memory>

#include <tarvo/NetworkManager.h>
#include <tarvo/Tarvo.h>

#include "platform/foundation/Guarded.h"

namespace tarvo {

/// What the copies of one `Tarvo` share; the engine's delegate.
///
/// A callback makes a handle of its own, so the object outlives it whatever the host drops meanwhile.
class Tarvo::Core final : public LocationManagerDelegate, public std::enable_shared_from_this<Tarvo::Core> {
 public:
  Core();

  /// The sample of a silent push, which is also what subscriptions ask the backend to send.
  static constexpr const char* NOTIFICATION_SILENT =
      "{\"messageFrom\" : \"tarvo\", \"name\" : \"routematch\", \"lasttrip_id\" : \"new\" ,\"aps\":{ "
      "\"content-available\" : 1}}";

  void locationManagerDidReceiveNewLocations(LocationManager& engine,
                                             const std::vector<platform::CLLocation>& newLocations) override;
  void locationManagerOnRouteMatched(LocationManager& engine, const LocationsHistory& locationsHistory) override;
  void onPredictionUpdateDelegate() override;

  LocationManager& locationManager;
  NetworkManager networkManager;
  platform::Guarded<std::shared_ptr<TarvoDelegate>> delegate;
  std::atomic<bool> stop_route_match{true};
  std::atomic<bool> stop_prediction_update{true};
};

/// "TarvoApiKey" and the like out of the host's property list; absent when missing or no text.
std::optional<std::string> infoPropertyListText(std::string_view key);

}  // namespace tarvo
