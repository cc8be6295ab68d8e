#include <tarvo/NetworkManager.h>

#include <utility>

#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "net/BackendAddress.h"
#include "net/ClientState.h"
#include "net/Messages.h"
#include "platform/foundation/FatalError.h"
#include "platform/urlsession/URLSession.h"
#include "settings/Names.h"

namespace tarvo {

using platform::concat;
using platform::MutexLock;

NetworkManager::State::State(std::string versionedBase) : remoteServerURL(std::move(versionedBase)) {
  if (!platform::isValidHttpUrl(remoteServerURL)) platform::fatalError("no valid backend address: " + remoteServerURL);
}

platform::URLRequest NetworkManager::State::userRequest(const Credentials& identity, std::string_view method,
                                                        std::string_view path, std::optional<std::string> body) const {
  return buildRequest(remoteServerURL, Settings::shared().clientID(), method, path, identity, std::move(body));
}

void NetworkManager::State::start(platform::URLRequest request, Completion completion) {
  platform::URLSession::shared()
      .dataTask(std::move(request),
                [state = shared_from_this(), completion = std::move(completion)](auto data, auto response, auto error) {
                  NetworkManager self(state);
                  Reply reply{std::move(data), std::move(response), std::move(error)};
                  completion(self, reply);
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
  MutexLock lock(state_->mutex);
  state_->backgroundSession = std::move(session);
}

NetworkManager::NetworkManager(std::shared_ptr<State> state) : state_(std::move(state)) {}

NetworkManager::~NetworkManager() = default;

void NetworkManager::setDelegate(std::shared_ptr<NetworkManagerDelegate> delegate) {
  // The one replaced may be the last of its kind: it goes after the lock.
  MutexLock lock(state_->mutex);
  state_->delegate.swap(delegate);
}

std::shared_ptr<NetworkManagerDelegate> NetworkManager::delegate() const {
  MutexLock lock(state_->mutex);
  return state_->delegate;
}

std::string NetworkManager::envir() const {
  MutexLock lock(state_->mutex);
  return state_->envir;
}

void NetworkManager::setEnvir(std::string name) {
  MutexLock lock(state_->mutex);
  state_->envir = std::move(name);
}

platform::UserDefaults& NetworkManager::defaults() const { return platform::UserDefaults::standard(); }

platform::URLRequest NetworkManager::request(std::string_view method, std::string_view path,
                                             std::optional<std::string> body) const {
  const Settings& settings = Settings::shared();
  if (path == endpoints::usersAPI)
    return buildRequest(state_->remoteServerURL, settings.clientID(), method, path,
                        {settings.tarvoapiKey.get(), settings.apiKeySecret.get()}, std::move(body));
  const auto identity = settings.identity();
  if (!identity) platform::fatalError(concat("request to ", path, " without user UUID or secret"));
  return state_->userRequest(*identity, method, path, std::move(body));
}

bool NetworkManager::isWebServerReachable(bool viaWiFi, std::string_view url) {
  return isServerReachable(viaWiFi, url, platform::NameLookup::ask);
}

}  // namespace tarvo
