#include <tarvo/NetworkManager.h>
#include <tarvo/platform/SystemLog.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "platform/foundation/FaultPoint.h"
#include "settings/EngineLink.h"
#include "settings/Settings.h"

namespace tarvo {
namespace {

using platform::Value;

constexpr CallTexts kRegistration{.status = " NetworkManager:sendUserToRemoteWebServer : httpstatus : ",
                                  .response = " réponse = ",
                                  .error = "NetworkManager:sendUserToRemoteWebServer :[error] :",
                                  .parse = "NetworkManager:sendUserToRemoteWebServer : "};

/// A header of a request has to hold it: with one that no request can carry, every batch would fail.
constexpr std::size_t kMostSecretBytes = 4096;

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
  platform::faultPoint("registration: user stored");
  engine.startPass();
  engine.setAlreadyReceivedUUID(true);
  if (!Settings::shared().tokenSent.exchange(true)) client.sendTokenremoteWebServer();
}

void readRegistration(NetworkManager& client, Reply& reply) {
  const auto answer = readAnswer(kRegistration, reply);
  const platform::Dictionary* user = answer ? firstResult(*answer) : nullptr;
  if (user == nullptr) return;
  const Value* uuid = find(*user, "uuid");
  const Value* creationDate = find(*user, "creation_date");
  const Value* secretKey = find(*user, "secretkey");
  if (uuid == nullptr || creationDate == nullptr || secretKey == nullptr) return;

  // A later answer replaces the secret too, and only that.
  const std::string secret = platform::concat(*secretKey);
  if (secret.size() > kMostSecretBytes) {
    Log::error("NetworkManager:sendUserToRemoteWebServer [net] secretkey refused: too long");
    return;
  }
  platform::faultPoint("registration: answered");
  Settings::shared().storeUserSecret(secret);
  platform::faultPoint("registration: secret stored");
  // To the console on purpose, past the log file, which is uploaded.
  platform::NSLog("secretkey : " + secret);
  adoptUser(client, *uuid, *creationDate);
}

}  // namespace

void NetworkManager::sendUserToRemoteWebServer(const std::string& data) {
  auto userRequest = state_->request("POST", endpoints::usersAPI, data);
  userRequest.replacesOlder = true;
  const std::string description = userRequest.description();
  state_->start(std::move(userRequest), readRegistration);
  Log::debug("NetworkManager:sendUserToRemoteWebServer [net] mainThread:", mainThread(), " request:", description);
}

}  // namespace tarvo
