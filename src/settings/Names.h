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
