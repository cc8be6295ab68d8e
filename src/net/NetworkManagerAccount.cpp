#include <utility>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "platform/foundation/Bundle.h"
#include "settings/Names.h"

namespace tarvo {
namespace {

constexpr CallTexts kToken{
    .problem = "NetworkManager:sendTokenremoteWebServer [loc] JSON conversion problem mainThread:",
    .unresolved = "Unresolved error ",
    .status = " NetworkManager:sendTokenremoteWebServer : httpstatus : ",
    .response = " NetworkManager:sendTokenremoteWebServer :réponse = ",
    .error = "NetworkManager:sendTokenremoteWebServer :[error] :"};
constexpr CallTexts kConfiguration{.status = "NetworkManager:userConfigremoteWebServer : httpStatus ",
                                   // The text of the upload: readers of the log know it so.
                                   .error = "NetworkManager:sendDataInBatchToRemoteWebServer :[error] :",
                                   .parse = "NetworkManager:userConfigremoteWebServer :[error] : "};
constexpr CallTexts kResetBackend{.status = "NetworkManager:resetBackend : httpStatus ",
                                  .error = "NetworkManager:resetBackend :[error] :"};
constexpr CallTexts kResetGeoProfile{.status = "NetworkManager:resetGeoProfile : httpStatus ",
                                     .error = "NetworkManager:resetGeoProfile :[error] :"};

/// The level goes to the user defaults alone: the logger reads it there.
void readConfiguration(NetworkManager& client, Reply& reply) {
  const auto answer = readAnswer(kConfiguration, reply);
  const platform::Dictionary* configuration = answer ? firstResult(*answer) : nullptr;
  const platform::Value* level = configuration == nullptr ? nullptr : find(*configuration, "log_level");
  if (level == nullptr) return;
  Log::debug("NetworkManager:userConfigremoteWebServer :logLeve = ", *level);
  if (const auto number = level->asInteger()) client.defaults().set(names::kLogLevel, *number);
}

void logReset(const CallTexts& texts, const Reply& reply) {
  if (reply.error) Log::error(texts.error, printedDescription(*reply.error));
  // For 200 too.
  if (reply.response) Log::debug(texts.status, reply.response->statusCode);
}

}  // namespace

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
  auto body = callBody(kToken, {{"token", token},
                                {"envir", envir()},
                                {"app_id", platform::Bundle::main().bundleIdentifier().value_or("")},
                                {"tokenusage", "apns"}});
  if (!body) return;
  auto tokenRequest = state_->requestFrom(*identity, "POST", endpoints::tokensAPI, std::move(body));
  const std::string description = tokenRequest.description();
  state_->start(std::move(tokenRequest), [](NetworkManager&, const Reply& reply) { logOutcome(kToken, reply); });
  Log::debug("NetworkManager:sendTokenremoteWebServer [net] mainThread:", mainThread(), " request:", description);
}

void NetworkManager::userConfigremoteWebServer() {
  const auto identity = identityFor("userConfigremoteWebServer");
  if (!identity) return;
  const std::string path = platform::concat(endpoints::userConfigAPI, "?uuid=", identity->name);
  state_->start(state_->requestFrom(*identity, "GET", path), readConfiguration);
}

void NetworkManager::resetBackend() {
  const auto identity = identityFor("resetBackend");
  if (!identity) return;
  state_->start(state_->requestFrom(*identity, "GET", endpoints::resetBackendAPI),
                [](NetworkManager&, const Reply& reply) { logReset(kResetBackend, reply); });
}

void NetworkManager::resetGeoProfile() {
  const auto identity = identityFor("resetGeoProfile");
  if (!identity) return;
  state_->start(state_->requestFrom(*identity, "GET", endpoints::resetGeoProfileAPI),
                [](NetworkManager&, const Reply& reply) { logReset(kResetGeoProfile, reply); });
}

}  // namespace tarvo
