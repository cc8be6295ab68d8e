#include <utility>

#include <tarvo/NetworkManager.h>

#include "settings/Names.h"
#include "settings/Settings.h"

// The class-wide fields are the process's settings under the names that hosts know.

namespace tarvo {

const char* const NetworkManager::SECRET_KEY = names::kUserSecret;

std::map<std::string, std::string> NetworkManager::SUBSCRIPTION_LIST() {
  return Settings::shared().subscriptions.get();
}

void NetworkManager::setSUBSCRIPTION_LIST(std::map<std::string, std::string> list) {
  Settings::shared().subscriptions.set(std::move(list));
}

void NetworkManager::setSUBSCRIPTION_LIST(std::string name, std::string value) {
  Settings::shared().subscriptions.update(
      [&](auto& list) { list.insert_or_assign(std::move(name), std::move(value)); });
}

std::set<std::string> NetworkManager::UNSUBSCRIPTION_LIST() { return Settings::shared().unsubscriptions.get(); }

void NetworkManager::setUNSUBSCRIPTION_LIST(std::set<std::string> names) {
  Settings::shared().unsubscriptions.set(std::move(names));
}

void NetworkManager::addUNSUBSCRIPTION_LIST(std::string name) {
  Settings::shared().unsubscriptions.update([&](auto& names) { names.insert(std::move(name)); });
}

std::string NetworkManager::apiKeySecret() { return Settings::shared().apiKeySecret.get(); }

void NetworkManager::setApiKeySecret(std::string secret) { Settings::shared().apiKeySecret.set(std::move(secret)); }

std::optional<std::string> NetworkManager::UUID_SECRET_KEY() { return Settings::shared().userSecret.get(); }

void NetworkManager::setUUID_SECRET_KEY(std::optional<std::string> secret) {
  Settings::shared().userSecret.set(std::move(secret));
}

bool NetworkManager::CANAL_LOCK() { return Settings::shared().uploadChannel.locked(); }

void NetworkManager::setCANAL_LOCK(bool locked) { Settings::shared().uploadChannel.setLocked(locked); }

platform::Date NetworkManager::CANAL_TIME_LOCK() { return Settings::shared().uploadChannel.takenAt(); }

void NetworkManager::setCANAL_TIME_LOCK(platform::Date date) { Settings::shared().uploadChannel.setTakenAt(date); }

std::int64_t NetworkManager::LAST_TRIP_ID() { return Settings::shared().lastTripID.get(); }

void NetworkManager::setLAST_TRIP_ID(std::int64_t id) { Settings::shared().lastTripID.set(id); }

}  // namespace tarvo
