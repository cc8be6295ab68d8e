#include "settings/Settings.h"

#include <utility>

#include <tarvo/platform/SystemLog.h>
#include <tarvo/platform/UserDefaults.h>

#include "settings/BackendAddress.h"
#include "settings/Names.h"

namespace tarvo {

using platform::MutexLock;
using platform::UserDefaults;

Settings& Settings::shared() {
  static Settings* settings = new Settings;
  return *settings;
}

void Settings::adoptUserUUID(std::string_view uuid) {
  userUUID.update([&](auto& known) {
    if (!known) known = uuid;
  });
}

void Settings::storeUserSecret(std::string secret) {
  MutexLock order(secretMutex_);
  UserDefaults::standard().set(names::kUserSecret, secret);
  userSecret.set(std::move(secret));
}

std::optional<std::string> Settings::reloadUserSecret() {
  MutexLock order(secretMutex_);
  auto secret = UserDefaults::standard().string(names::kUserSecret);
  userSecret.set(secret);
  return secret;
}

std::optional<Identity> Settings::identity() const {
  auto uuid = userUUID.get();
  auto secret = userSecret.get();
  if (!uuid || !secret) return std::nullopt;
  return Identity{std::move(*uuid), std::move(*secret)};
}

bool Settings::setClientID(std::string_view clientID) {
  if (!isUsableClientID(clientID)) {
    platform::NSLog("Tarvo : client id refused: it would not make a valid URL");
    return false;
  }
  clientID_.set(std::string(clientID));
  return true;
}

std::string Settings::remoteWebServerURL() const {
  auto url = remoteWebServerURL_.get();
  return url.empty() ? names::kDefaultRemoteWebServerURL : url;
}

bool Settings::setRemoteWebServerURL(std::string_view url, bool allowPlainHttp) {
  if (const auto refusal = refusalOfBackendAddress(url, allowPlainHttp)) {
    platform::NSLog("Tarvo : backend address refused: " + *refusal);
    return false;
  }
  remoteWebServerURL_.set(std::string(url));
  return true;
}

}  // namespace tarvo
