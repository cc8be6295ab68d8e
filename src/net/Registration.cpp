#include <tarvo/NetworkManager.h>
#include <tarvo/platform/SystemLog.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Endpoints.h"
#include "platform/foundation/Json.h"
#include "settings/BackendAddress.h"
#include "settings/EngineLink.h"

namespace tarvo {
namespace {

using platform::Value;

/// Makes the user whom the backend has issued known to the engine, once in a process.
void adoptUser(NetworkManager& client, const Value& uuid, const Value& creationDate) {
  EngineLink& engine = EngineLink::current();
  if (engine.alreadyReceivedUUID()) return;
  // The identifier becomes part of file names and URLs; one that could lead elsewhere is none.
  if (uuid.asString() != nullptr && !isUsableUserUUID(*uuid.asString())) {
    Log::error("NetworkManager:sendUserToRemoteWebServer [net] uuid refused: not a plain name");
    return;
  }
  Log::debug(" NetworkManager:sendUserToRemoteWebServer [net] uuid:", uuid, " mainThread:", mainThread());
  engine.storeUser(requireText(uuid, "uuid"), requireText(creationDate, "creation_date"));
  engine.startPass();
  engine.setAlreadyReceivedUUID(true);
  if (!Settings::shared().tokenSent.exchange(true)) client.sendTokenremoteWebServer();
}

void readRegistration(NetworkManager& client, const Reply& reply) {
  if (reply.refused())
    Log::debug(" NetworkManager:sendUserToRemoteWebServer : httpstatus : ", reply.response->statusCode,
               " réponse = ", reply.response->debugDescription());
  if (reply.error) {
    Log::error("NetworkManager:sendUserToRemoteWebServer :[error] :", printedDescription(*reply.error));
    return;
  }
  if (!reply.data) return;
  auto json = platform::parseJson(*reply.data);
  if (!json) {
    Log::error("NetworkManager:sendUserToRemoteWebServer : ", json.error().localizedDescription);
    return;
  }
  const platform::Dictionary* answer = json->asDictionary();
  if (answer == nullptr || !isSuccess(*answer)) return;
  const platform::Dictionary* user = firstResult(*answer);
  if (user == nullptr) return;
  const Value* uuid = find(*user, "uuid");
  const Value* creationDate = find(*user, "creation_date");
  const Value* secretKey = find(*user, "secretkey");
  if (uuid == nullptr || creationDate == nullptr || secretKey == nullptr) return;

  // A later answer replaces the secret too, and only that.
  const std::string secret = platform::concat(*secretKey);
  Settings::shared().storeUserSecret(secret);
  // To the console on purpose, past the log file, which is uploaded.
  platform::NSLog("secretkey : " + secret);
  adoptUser(client, *uuid, *creationDate);
}

}  // namespace

void NetworkManager::sendUserToRemoteWebServer(const std::string& data) {
  auto userRequest = request("POST", endpoints::usersAPI, data);
  userRequest.replacesOlder = true;
  const std::string description = userRequest.description();
  state_->start(std::move(userRequest), readRegistration);
  Log::debug("NetworkManager:sendUserToRemoteWebServer [net] mainThread:", mainThread(), " request:", description);
}

}  // namespace tarvo
