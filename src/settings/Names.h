#pragma once

#include <string>
#include <string_view>

#include <tarvo/HostKeys.h>

namespace tarvo::names {

/// Reverse-DNS prefix of queue labels, the framework bundle and the background session.
inline constexpr std::string_view kPrefix = "org.tarvo";
inline constexpr const char* kFrameworkBundle = "org.tarvo.TarvoFramework";
inline constexpr const char* kBackgroundSession = "org.tarvo.Tarvo.ios.networking.background.location";
inline constexpr const char* kCallFromServerNotification = "org.tarvo.Tarvo.ios.networking.notificationKey";
inline constexpr const char* kTerrameshDataVersion = "1";
/// Used until the host sets the address of its own backend.
inline constexpr const char* kDefaultRemoteWebServerURL = "https://backend.tarvo.example/api";

/// Keys of the user defaults.
using keys::kLogLevel;
inline constexpr const char* kKeyMarker = "TARVO_ACTIVATE_STATUS";
inline constexpr const char* kKeyMode = keys::kActivateMode;
inline constexpr const char* kUserSecret = "uuid_secret_key";
inline constexpr const char* kServiceState = "service_state";
inline constexpr const char* kUnsentLocation = "tarvoUnsentLocation";
inline constexpr const char* kSentWithoutACK = "tarvoLocSentWithoutACK";

}  // namespace tarvo::names

namespace tarvo {

/// Labels of the localisation method stored with each position.
namespace method {
inline constexpr std::string_view kUnknown = "unknown";
inline constexpr std::string_view kEvent = "event";
inline constexpr std::string_view kPush = "push";
inline constexpr std::string_view kStandard = "sls";
inline constexpr std::string_view kRegions = "rms";
inline constexpr std::string_view kSignificantChange = "scls";
inline constexpr std::string_view kRegionsAndSignificantChange = "rms-scls";
}  // namespace method

/// The service action stored with each position: what made the engine store it.
namespace action {
inline constexpr std::string_view kStarting = "srv_starting";
inline constexpr std::string_view kChanged = "loc_changed";
inline constexpr std::string_view kEnabled = "loc_enabled";
inline constexpr std::string_view kDisabled = "loc_disabled";
inline constexpr std::string_view kRefresh = "loc_refresh";
inline constexpr std::string_view kPowerPlug = "power_plug";
inline constexpr std::string_view kPowerUnplug = "power_unplug";
inline constexpr std::string_view kAppStarted = "app_started";
inline constexpr std::string_view kAppResumed = "app_resumed";
inline constexpr std::string_view kAppPaused = "app_paused";
}  // namespace action

}  // namespace tarvo
