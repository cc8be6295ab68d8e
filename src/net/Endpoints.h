#pragma once

#include <string_view>

namespace tarvo::endpoints {

/// Stands between the backend's address and the client id.
inline constexpr std::string_view kVersion = "/v1/";

/// Paths of the backend's REST service, behind the client id.
inline constexpr std::string_view usersAPI = "users";
inline constexpr std::string_view positionsAPI = "positions";
inline constexpr std::string_view logAPI = "uplog";
inline constexpr std::string_view userConfigAPI = "userconf";
inline constexpr std::string_view tokensAPI = "tokens";
inline constexpr std::string_view tripAPI = "predictions";
inline constexpr std::string_view locationHistoryAPI = "pasttrips";
inline constexpr std::string_view poiAPI = "pois";
inline constexpr std::string_view resetBackendAPI = "resetbackend";
inline constexpr std::string_view resetGeoProfileAPI = "resetgeoprofile";
inline constexpr std::string_view subscriptionRegisterAPI = "subscriptions/register";
inline constexpr std::string_view subscriptionUnregiterAPI = "subscriptions/unregister";
inline constexpr std::string_view setTagsAPI = "tags/set";
inline constexpr std::string_view unsetTagsAPI = "tags/unset";

/// Reserved file names; nothing reads them.
inline constexpr std::string_view dataFile = "marrowgate-tarvo-data";
inline constexpr std::string_view userFile = "marrowgate-tarvo-user";
inline constexpr std::string_view logFile = "log";

}  // namespace tarvo::endpoints
