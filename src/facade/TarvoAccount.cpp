// Push messages, credentials, subscriptions and tags of `Tarvo`.

#include <tarvo/platform/SystemLog.h>

#include "facade/TarvoCore.h"
#include "log/Log.h"
#include "platform/foundation/Bundle.h"
#include "settings/Settings.h"

namespace tarvo {

using platform::concat;
using platform::NSLog;

namespace {

constexpr const char* kRouteMatchSubscription = "routematch_silent";
constexpr const char* kPredictionSubscription = "prediction_silent";

bool backendMode() { return Tarvo::ACTIVATE_STATUS() >= Tarvo::BACKEND_BACKGROUND; }

}  // namespace

void Tarvo::didRegisterForRemoteNotificationsWithDeviceToken(const std::string& token) {
  Settings::shared().deviceToken.set(token);
  if (NetworkManager::UUID_SECRET_KEY()) core_->networkManager.sendTokenremoteWebServer();
  Log::debug("Tarvo : token ", token);
}

bool Tarvo::didReceiveRemoteNotification(const platform::Dictionary& userInfo) {
  Log::debug("Tarvo : didReceiveRemoteNotification : ", userInfo);
  if (platform::findString(userInfo, "messageFrom") != "tarvo") return false;
  if (backendMode()) {
    NetworkManager& client = core_->networkManager;
    client.sendLogToRemoteWebServer();
    client.userConfigremoteWebServer();
    core_->locationManager.refreshLoc();
    for (const auto& [name, value] : SET_TAGS_LIST()) client.setTags(name, value);
    for (const auto& name : UNSET_TAGS_LIST()) client.unsetTags(name);
  }
  return true;
}

void Tarvo::setApiKeySecret(const std::string& secret) {
  Settings& settings = Settings::shared();
  settings.apiKeySecret.set(secret);
  if (!backendMode()) return;
  if (const auto identifier = platform::Bundle::main().bundleIdentifier()) {
    settings.bundleID.set(*identifier);
    Log::debug("Tarvo : Tarvo bundleID : ", *identifier);
  }
  // Credentials go to the system log only, never into the log file, which is uploaded.
  if (const auto key = infoPropertyListText("TarvoApiKey")) {
    settings.tarvoapiKey.set(*key);
    NSLog(concat("Tarvo  : Tarvo API_KEY ", *key));
  } else {
    NSLog("Tarvo : Failed to load Tarvo API KEY");
  }
  if (const auto client = infoPropertyListText("TarvoClientID"); client && settings.setClientID(*client)) {
    NSLog(concat("Tarvo  : Tarvo ClientID ", *client));
  } else {
    NSLog("Tarvo : Failed to load Tarvo clientID");
  }
  // A device that has its secret is registered; registering again would store a second user.
  if (!settings.reloadUserSecret() && !secret.empty()) core_->locationManager.registerUserToRemoteWebServer();
  core_->locationManager.sendDataInBatchToRemoteWebServer();
}

void Tarvo::requestRouteMatch() {
  NetworkManager::setSUBSCRIPTION_LIST(kRouteMatchSubscription, Core::NOTIFICATION_SILENT);
  if (backendMode()) core_->networkManager.subscriptionRegiter(kRouteMatchSubscription, Core::NOTIFICATION_SILENT);
  core_->stop_route_match = false;
}

void Tarvo::stopRouteMatch() { core_->stop_route_match = true; }

void Tarvo::requestPredictionUpdate() {
  core_->stop_prediction_update = false;
  // The same sample as for route matches, whose name it carries: the backend tells them apart by the subscription.
  NetworkManager::setSUBSCRIPTION_LIST(kPredictionSubscription, Core::NOTIFICATION_SILENT);
  if (backendMode()) core_->networkManager.subscriptionRegiter(kPredictionSubscription, Core::NOTIFICATION_SILENT);
}

void Tarvo::stopPredictionUpdate() { core_->stop_prediction_update = true; }

void Tarvo::setSubscription(const std::string& name, const std::string& value) {
  NetworkManager::setSUBSCRIPTION_LIST(name, value);
  if (backendMode()) core_->networkManager.subscriptionRegiter(name, value);
}

void Tarvo::setUnSubscription(const std::string& name) {
  platform::Array names;
  for (const auto& waiting : NetworkManager::UNSUBSCRIPTION_LIST()) names.emplace_back(waiting);
  Log::debug("UNSUBSCRIPTION_LIST : : : ", platform::Value(names));
  NetworkManager::addUNSUBSCRIPTION_LIST(name);
  if (backendMode()) core_->networkManager.subscriptionUnRegister(name);
}

void Tarvo::setTags(const std::string& name, const std::string& value) {
  Settings::shared().tagsToSet.update([&](auto& tags) { tags.insert_or_assign(name, value); });
  if (backendMode()) core_->networkManager.setTags(name, value);
}

void Tarvo::unsetTags(const std::string& name) {
  Settings::shared().tagsToUnset.update([&](auto& names) { names.push_back(name); });
  if (backendMode()) core_->networkManager.unsetTags(name);
}

bool Tarvo::handleEventsForBackgroundURLSession(const std::string& identifier,
                                                std::function<void()> completionHandler) {
  if (identifier != backgroundSessionID()) return false;
  core_->locationManager.handleEventsForBackgroundURLSession(identifier, std::move(completionHandler));
  return true;
}

}  // namespace tarvo
