#include "sync/DeviceRegistration.h"

#include <set>

#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "log/Log.h"
#include "platform/foundation/FaultPoint.h"
#include "platform/foundation/Json.h"
#include "settings/EngineLink.h"
#include "settings/Settings.h"
#include "store/Users.h"

namespace tarvo {

using platform::concat;
using platform::UIDevice;

namespace {

platform::Dictionary deviceDescription() {
  const UIDevice& device = UIDevice::current();
  const std::string identifier = device.identifierForVendor().value_or("unknown");
  return {
      {"mobileos", "ios"},
      {"mobileid", concat("{\"os\":\"ios\", \"iosid\":\"", identifier, "\"}")},
      {"phone_description",
       concat("{", device.name(), " ", device.systemName(), " ", device.systemVersion(), " ", "}")},
      {"sensors", "unknown"},
  };
}

}  // namespace

std::vector<UserRecord> DeviceRegistration::getUser() {
  std::vector<UserRecord> users;
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    for (const auto& user : Users::getUsers(context)) users.push_back({user->uuid(), user->timestamp()});
  });
  return users;
}

void DeviceRegistration::removeRepeatedUsers() {
  auto& context = store_.managedObjectContext();
  context.performAndWait([&] {
    std::set<std::string> kept;
    for (const auto& user : Users::getUsers(context))
      if (const auto uuid = user->uuid(); uuid && !kept.insert(*uuid).second) context.deleteObject(user);
  });
}

std::optional<std::string> DeviceRegistration::checkAndRegisterUser() {
  auto users = getUser();
  if (users.size() > 1) {
    removeRepeatedUsers();
    users = getUser();
  }
  Settings& settings = Settings::shared();
  if (users.empty()) {
    Log::debug("LocationManager:checkAndRegisterUser [loc] nbUsers:0 mainThread:", mainThread());
    if (!settings.apiKeySecret.get().empty()) registerUserToRemoteWebServer();
    return std::nullopt;
  }
  if (users.size() == 1) {
    Log::debug("LocationManager:checkAndRegisterUser [loc] nbUsers:1 mainThread:", mainThread());
    if (!settings.userSecret.get() && !settings.apiKeySecret.get().empty()) registerUserToRemoteWebServer();
    return users.front().uuid;
  }
  Log::error("LocationManager:checkAndRegisterUser [loc] error nbUsers:", users.size(), " mainThread:", mainThread());
  return std::nullopt;
}

void DeviceRegistration::registerUserToRemoteWebServer() {
  const platform::Dictionary description = deviceDescription();
  if (!platform::isValidJsonObject(description)) {
    Log::error("LocationManager:registerUserToRemoteWebServer [loc] JSON conversion problem mainThread:", mainThread());
    return;
  }
  auto body = platform::serializeJson(description);
  if (!body) {
    Log::error("Unresolved error ", platform::errorAndUserInfo(body.error()));
    return;
  }
  Log::debug("LocationManager:registerUserToRemoteWebServer [loc] user:", description);
  client_.sendUserToRemoteWebServer(*body);
}

void DeviceRegistration::storeUser(std::string_view uuid, std::string_view creationDate) {
  auto& context = store_.managedObjectContext();
  const auto store = [this, &context, uuid = std::string(uuid), creationDate = std::string(creationDate)] {
    Users::addUser(uuid, creationDate, context);
    platform::faultPoint("registration: user made");
    store_.saveContext();
  };
  // The record never gets to the disk before the secret: a device that finds one without the other registers again.
  if (platform::UserDefaults::standard().synchronize())
    context.performAndWait(store);
  else
    platform::UserDefaults::standard().whenSynchronized([&context, store] { context.perform(store); });
  Settings::shared().adoptUserUUID(uuid);
  platform::faultPoint("registration: user known");
  if (EngineLink* engine = EngineLink::installed()) engine->startPass();
}

}  // namespace tarvo
