#include <utility>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "platform/foundation/Bundle.h"
#include "platform/foundation/Json.h"
#include "settings/Names.h"

namespace tarvo {
namespace {

constexpr BodyTexts kTokenBody{"NetworkManager:sendTokenremoteWebServer [loc] JSON conversion problem mainThread:",
                               "Unresolved error "};

/// The level goes to the user defaults alone: the logger reads it there.
void readConfiguration(NetworkManager& client, const Reply& reply) {
  if (reply.refused()) Log::debug("NetworkManager:userConfigremoteWebServer : httpStatus ", reply.response->statusCode);
  if (reply.error) {
    // The text of the upload: readers of the log know it so.
    Log::error("NetworkManager:sendDataInBatchToRemoteWebServer :[error] :", printedDescription(*reply.error));
    return;
  }
  if (!reply.data) return;
  auto json = platform::parseJson(*reply.data);
  if (!json) {
    Log::error("NetworkManager:userConfigremoteWebServer :[error] : ", json.error().localizedDescription);
    return;
  }
  const platform::Dictionary* answer = json->asDictionary();
  if (answer == nullptr || !isSuccess(*answer)) return;
  const platform::Dictionary* configuration = firstResult(*answer);
  const platform::Value* level = configuration == nullptr ? nullptr : find(*configuration, "log_level");
  if (level == nullptr) return;
  Log::debug("NetworkManager:userConfigremoteWebServer :logLeve = ", *level);
  if (const auto number = level->asInteger()) client.defaults().set(names::kLogLevel, *number);
}

}  // namespace

/// How the two resets differ; lives as long as the process.
struct NetworkManager::Reset {
  std::string_view call, path, error, status;
};

void NetworkManager::sendTokenremoteWebServer() {
  const Settings& settings = Settings::shared();
  const auto uuid = settings.userUUID.get();
  if (!uuid) {
    Log::debug("NetworkManager:sendTokenremoteWebServer [loc] user:", uuid, " mainThread:", mainThread());
    return;
  }
  const std::string token = settings.deviceToken.get();
  if (token.empty()) return;
  const auto identity = identityFor("sendTokenremoteWebServer");
  if (!identity) return;
  auto body = callBody(kTokenBody, {{"token", token},
                                    {"envir", envir()},
                                    {"app_id", platform::Bundle::main().bundleIdentifier().value_or("")},
                                    {"tokenusage", "apns"}});
  if (!body) return;
  auto tokenRequest = state_->userRequest(*identity, "POST", endpoints::tokensAPI, std::move(body));
  const std::string description = tokenRequest.description();
  state_->start(std::move(tokenRequest), [](NetworkManager&, const Reply& reply) {
    if (reply.error) Log::error("NetworkManager:sendTokenremoteWebServer :[error] :", printedDescription(*reply.error));
    if (reply.refused()) {
      Log::debug(" NetworkManager:sendTokenremoteWebServer : httpstatus : ", reply.response->statusCode);
      Log::debug(" NetworkManager:sendTokenremoteWebServer :réponse = ", reply.response->debugDescription());
    }
  });
  Log::debug("NetworkManager:sendTokenremoteWebServer [net] mainThread:", mainThread(), " request:", description);
}

void NetworkManager::userConfigremoteWebServer() {
  const auto identity = identityFor("userConfigremoteWebServer");
  if (!identity) return;
  const std::string path = platform::concat(endpoints::userConfigAPI, "?uuid=", identity->name);
  state_->start(state_->userRequest(*identity, "GET", path), readConfiguration);
}

void NetworkManager::reset(const Reset& reset) {
  const auto identity = identityFor(reset.call);
  if (!identity) return;
  state_->start(state_->userRequest(*identity, "GET", reset.path), [&reset](NetworkManager&, const Reply& reply) {
    if (reply.error) Log::error(reset.error, printedDescription(*reply.error));
    // For 200 too.
    if (reply.response) Log::debug(reset.status, reply.response->statusCode);
  });
}

void NetworkManager::resetBackend() {
  static constexpr Reset kReset{"resetBackend", endpoints::resetBackendAPI,
                                "NetworkManager:resetBackend :[error] :", "NetworkManager:resetBackend : httpStatus "};
  reset(kReset);
}

void NetworkManager::resetGeoProfile() {
  static constexpr Reset kReset{
      "resetGeoProfile", endpoints::resetGeoProfileAPI,
      "NetworkManager:resetGeoProfile :[error] :", "NetworkManager:resetGeoProfile : httpStatus "};
  reset(kReset);
}

}  // namespace tarvo
