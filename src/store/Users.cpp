#include "store/Users.h"

#include <tarvo/platform/Device.h>

#include <utility>

#include "log/Log.h"
#include "platform/foundation/Json.h"
#include "platform/foundation/Text.h"
#include "store/Attributes.h"

namespace tarvo {

namespace at = attribute::users;

void Users::addUser(std::string_view uuid, std::string_view timestamp, Context& context) {
  const auto added = insert(context);
  if (!added) return;
  added->setString(at::uuid, uuid);
  added->setString(at::timestamp, timestamp);
}

Users::List Users::getUsers(Context& context) {
  auto users = fetch(context, "Users:getUsers [loc] error:");
  return users ? std::move(*users) : List{};
}

std::optional<std::string> Users::getUserUUID(Context& context) {
  const List users = getUsers(context);
  return users.empty() ? std::nullopt : users.front()->uuid();
}

std::optional<std::string> Users::convertUsersToJSON(const Users& user) {
  const auto uuid = user.uuid();
  if (!uuid) return std::nullopt;
  const platform::UIDevice& device = platform::UIDevice::current();
  const platform::Value description(platform::Dictionary{
      {"mobileos", "ios"},
      {"uuid", *uuid},
      {"mobileid", ""},
      {"phone_description",
       platform::concat("{ ", device.name(), " ", device.systemName(), " ", device.systemVersion(), " }")},
      {"sensors", ""},
  });
  if (!platform::isValidJsonObject(description)) return std::nullopt;
  auto text = platform::serializeJson(description);
  if (!text) {
    // The text names another operation; whoever searches logs for this failure looks for these words.
    Log::error("Locations:markLocationAsSentUntilIndex [loc] error:", platform::errorAndUserInfo(text.error()));
    return std::nullopt;
  }
  return std::move(*text);
}

std::optional<std::string> Users::uuid() const { return text(at::uuid); }
std::optional<std::string> Users::timestamp() const { return text(at::timestamp); }

}  // namespace tarvo
