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

std::int64_t Settings::activateStatus() const {
  MutexLock lock(mutex_);
  return values_.activateStatus;
}

void Settings::setActivateStatus(std::int64_t value) {
  MutexLock lock(mutex_);
  values_.activateStatus = value;
}

std::string Settings::tarvoapiKey() const {
  MutexLock lock(mutex_);
  return values_.tarvoapiKey;
}

void Settings::setTarvoapiKey(std::string value) {
  MutexLock lock(mutex_);
  values_.tarvoapiKey = std::move(value);
}

std::string Settings::bundleID() const {
  MutexLock lock(mutex_);
  return values_.bundleID;
}

void Settings::setBundleID(std::string value) {
  MutexLock lock(mutex_);
  values_.bundleID = std::move(value);
}

std::string Settings::deviceToken() const {
  MutexLock lock(mutex_);
  return values_.deviceToken;
}

void Settings::setDeviceToken(std::string value) {
  MutexLock lock(mutex_);
  values_.deviceToken = std::move(value);
}

bool Settings::tokenSent() const {
  MutexLock lock(mutex_);
  return values_.tokenSent;
}

void Settings::setTokenSent(bool value) {
  MutexLock lock(mutex_);
  values_.tokenSent = value;
}

std::string Settings::apiKeySecret() const {
  MutexLock lock(mutex_);
  return values_.apiKeySecret;
}

void Settings::setApiKeySecret(std::string value) {
  MutexLock lock(mutex_);
  values_.apiKeySecret = std::move(value);
}

std::optional<std::string> Settings::userUUID() const {
  MutexLock lock(mutex_);
  return values_.userUUID;
}

void Settings::setUserUUID(std::optional<std::string> value) {
  MutexLock lock(mutex_);
  values_.userUUID = std::move(value);
}

std::optional<std::string> Settings::userSecret() const {
  MutexLock lock(mutex_);
  return values_.userSecret;
}

void Settings::setUserSecret(std::optional<std::string> value) {
  MutexLock lock(mutex_);
  values_.userSecret = std::move(value);
}

std::int64_t Settings::lastTripID() const {
  MutexLock lock(mutex_);
  return values_.lastTripID;
}

void Settings::setLastTripID(std::int64_t value) {
  MutexLock lock(mutex_);
  values_.lastTripID = value;
}

std::string Settings::clientID() const {
  MutexLock lock(mutex_);
  return values_.clientID;
}

bool Settings::setClientID(std::string_view clientID) {
  if (!isUsableClientID(clientID)) {
    platform::NSLog("Tarvo : client id refused: it would not make a valid URL");
    return false;
  }
  MutexLock lock(mutex_);
  values_.clientID = clientID;
  return true;
}

bool Settings::claimTokenSending() {
  MutexLock lock(mutex_);
  return !std::exchange(values_.tokenSent, true);
}

void Settings::adoptUserUUID(std::string_view uuid) {
  MutexLock lock(mutex_);
  if (!values_.userUUID) values_.userUUID = uuid;
}

void Settings::storeUserSecret(std::string secret) {
  MutexLock order(secretMutex_);
  UserDefaults::standard().set(names::kUserSecret, secret);
  setUserSecret(std::move(secret));
}

std::optional<std::string> Settings::reloadUserSecret() {
  MutexLock order(secretMutex_);
  auto secret = UserDefaults::standard().string(names::kUserSecret);
  setUserSecret(secret);
  return secret;
}

std::optional<Identity> Settings::identity() const {
  MutexLock lock(mutex_);
  if (!values_.userUUID || !values_.userSecret) return std::nullopt;
  return Identity{*values_.userUUID, *values_.userSecret};
}

std::string Settings::remoteWebServerURL() const {
  MutexLock lock(mutex_);
  return values_.remoteWebServerURL.empty() ? names::kDefaultRemoteWebServerURL : values_.remoteWebServerURL;
}

bool Settings::setRemoteWebServerURL(std::string_view url, bool allowPlainHttp) {
  if (const auto refusal = refusalOfBackendAddress(url, allowPlainHttp)) {
    platform::NSLog("Tarvo : backend address refused: " + *refusal);
    return false;
  }
  MutexLock lock(mutex_);
  values_.remoteWebServerURL = url;
  return true;
}

bool Settings::changeLastTripID(std::int64_t id) {
  MutexLock lock(mutex_);
  return std::exchange(values_.lastTripID, id) != id;
}

std::map<std::string, std::string> Settings::subscriptions() const {
  MutexLock lock(mutex_);
  return values_.subscriptions;
}

void Settings::setSubscription(std::string name, std::string value) {
  MutexLock lock(mutex_);
  values_.subscriptions.insert_or_assign(std::move(name), std::move(value));
}

void Settings::removeSubscription(std::string_view name) {
  MutexLock lock(mutex_);
  values_.subscriptions.erase(std::string(name));
}

void Settings::replaceSubscriptions(std::map<std::string, std::string> list) {
  MutexLock lock(mutex_);
  values_.subscriptions.swap(list);
}

std::set<std::string> Settings::unsubscriptions() const {
  MutexLock lock(mutex_);
  return values_.unsubscriptions;
}

void Settings::addUnsubscription(std::string name) {
  MutexLock lock(mutex_);
  values_.unsubscriptions.insert(std::move(name));
}

void Settings::removeUnsubscription(std::string_view name) {
  MutexLock lock(mutex_);
  values_.unsubscriptions.erase(std::string(name));
}

void Settings::replaceUnsubscriptions(std::set<std::string> names) {
  MutexLock lock(mutex_);
  values_.unsubscriptions.swap(names);
}

std::map<std::string, std::string> Settings::setTags() const {
  MutexLock lock(mutex_);
  return values_.setTags;
}

void Settings::addSetTag(std::string name, std::string value) {
  MutexLock lock(mutex_);
  values_.setTags.insert_or_assign(std::move(name), std::move(value));
}

void Settings::replaceSetTags(std::map<std::string, std::string> tags) {
  MutexLock lock(mutex_);
  values_.setTags.swap(tags);
}

std::vector<std::string> Settings::unsetTags() const {
  MutexLock lock(mutex_);
  return values_.unsetTags;
}

void Settings::addUnsetTag(std::string name) {
  MutexLock lock(mutex_);
  values_.unsetTags.push_back(std::move(name));
}

void Settings::replaceUnsetTags(std::vector<std::string> names) {
  MutexLock lock(mutex_);
  values_.unsetTags.swap(names);
}

}  // namespace tarvo
