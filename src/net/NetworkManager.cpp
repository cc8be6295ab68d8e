#include <tarvo/NetworkManager.h>

#include <utility>

#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/BackendAddress.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "net/ProtocolBreak.h"
#include "platform/foundation/FatalError.h"
#include "platform/urlsession/URLSession.h"
#include "settings/Names.h"

namespace tarvo {

using platform::concat;

NetworkManager::State::State(std::string versionedBase) : remoteServerURL(std::move(versionedBase)) {
  if (!platform::isValidHttpUrl(remoteServerURL)) platform::fatalError("no valid backend address: " + remoteServerURL);
}

platform::URLRequest NetworkManager::State::request(std::string_view method, std::string_view path,
                                                    std::optional<std::string> body) const {
  const Settings& settings = Settings::shared();
  if (path == endpoints::usersAPI)
    return requestFrom({settings.tarvoapiKey.get(), settings.apiKeySecret.get()}, method, path, std::move(body));
  const auto identity = settings.identity();
  if (!identity) platform::fatalError(concat("request to ", path, " without user UUID or secret"));
  return requestFrom(*identity, method, path, std::move(body));
}

platform::URLRequest NetworkManager::State::requestFrom(const Credentials& credentials, std::string_view method,
                                                        std::string_view path, std::optional<std::string> body) const {
  return buildRequest(remoteServerURL, Settings::shared().clientID(), method, path, credentials, std::move(body));
}

void NetworkManager::State::start(platform::URLRequest request, Completion completion) {
  platform::URLSession::shared()
      .dataTask(std::move(request),
                [state = shared_from_this(), completion = std::move(completion)](auto data, auto response, auto error) {
                  NetworkManager self(state);
                  Reply reply{std::move(data), std::move(response), std::move(error)};
                  droppingProtocolBreaks([&] { completion(self, reply); });
                })
      ->resume();
}

std::optional<Credentials> identityFor(std::string_view call) {
  auto identity = Settings::shared().identity();
  if (!identity) Log::debug("NetworkManager:", call, " [net] no user, not sent mainThread:", mainThread());
  return identity;
}

NetworkManager::NetworkManager()
    : state_(std::make_shared<State>(concat(Settings::shared().copyRemoteWebServerURL(), endpoints::kVersion))) {
  Settings::shared().reloadUserSecret();
  auto session = openBackgroundSession(names::kBackgroundSession);
  Log::debug("NetworkManager:init [net] newBackgroundSession:", session->description());
  state_->backgroundSession.set(std::move(session));
}

NetworkManager::NetworkManager(std::shared_ptr<State> state) : state_(std::move(state)) {}

NetworkManager::~NetworkManager() = default;

void NetworkManager::setDelegate(std::shared_ptr<NetworkManagerDelegate> delegate) {
  state_->delegate.set(std::move(delegate));
}

std::shared_ptr<NetworkManagerDelegate> NetworkManager::delegate() const { return state_->delegate.get(); }

std::string NetworkManager::envir() const { return state_->envir.get(); }

void NetworkManager::setEnvir(std::string name) { state_->envir.set(std::move(name)); }

platform::UserDefaults& NetworkManager::defaults() const { return platform::UserDefaults::standard(); }

bool NetworkManager::isWebServerReachable(bool viaWiFi, std::string_view url) {
  return isServerReachable(viaWiFi, url, platform::NameLookup::ask);
}

}  // namespace tarvo
