#include <utility>

#include <tarvo/NetworkManager.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"

namespace tarvo {
namespace {

using platform::Dictionary;
using platform::Value;

/// Shared by the subscription and tag calls.
constexpr BodyTexts kBody{"NetworkManager:subscriptionRegiter [loc] JSON conversion problem mainThread:",
                          "NetworkManager:subscriptionRegiter Unresolved error "};

Dictionary subscriptionList() {
  Dictionary list;
  for (auto& [name, notification] : Settings::shared().subscriptions.get()) list.emplace(name, notification);
  return list;
}

Value unsubscriptionList() {
  platform::Array list;
  for (const auto& name : Settings::shared().unsubscriptions.get()) list.emplace_back(name);
  return list;
}

/// Both directions of a subscription write the texts of the registration.
void logSubscription(const Reply& reply) {
  if (reply.error) Log::error("NetworkManager:subscriptionRegiter :[error] : ", reply.error->localizedDescription);
  if (reply.refused()) {
    Log::debug(" NetworkManager:subscriptionRegiter : httpstatus : ", reply.response->statusCode);
    Log::debug(" NetworkManager:subscriptionRegiter :réponse = ", reply.response->debugDescription());
  }
}

/// How the two tag calls differ in what they write about their answers.
struct TagTexts {
  std::string_view error, status, response, success;
};

constexpr TagTexts kSetTags{"NetworkManager:setTags :[error] : ", " NetworkManager:setTags : httpstatus : ",
                            " NetworkManager:setTags :réponse = ", "NetworkManager:setTags :[success] "};
constexpr TagTexts kUnsetTags{"NetworkManager:unsetTags :[error] : ", " NetworkManager:unsetTags : httpstatus : ",
                              " NetworkManager:unsetTags :réponse = ", "NetworkManager:unsetTags :[success] "};

void logTags(const TagTexts& texts, const Reply& reply) {
  if (reply.error) Log::error(texts.error, reply.error->localizedDescription);
  if (reply.refused()) {
    Log::debug(texts.status, reply.response->statusCode);
    Log::debug(texts.response, reply.response->debugDescription());
  }
  if (reply.ok()) Log::debug(texts.success);
}

}  // namespace

void NetworkManager::subscriptionRegiter(const std::string& subscription, const std::string& notification) {
  const auto identity = identityFor("subscriptionRegiter");
  if (!identity) return;
  Log::debug("NetworkManager:subscriptionRegiter :[SUBSCRIPTION_LIST] : ", subscriptionList(), " ---");
  auto body = callBody(kBody, {{"subscription", subscription},
                               {"envir", envir()},
                               {"app_id", Settings::shared().bundleID.get()},
                               {"notification", notification}});
  if (!body) return;
  state_->start(state_->userRequest(*identity, "POST", endpoints::subscriptionRegisterAPI, std::move(body)),
                [subscription](NetworkManager&, const Reply& reply) {
                  logSubscription(reply);
                  if (!reply.ok()) return;
                  Settings::shared().subscriptions.update([&](auto& list) { list.erase(subscription); });
                  Log::debug("NetworkManager:subscriptionRegiter :[SUBSCRIPTION_LIST] : ", subscriptionList());
                });
}

void NetworkManager::subscriptionUnRegister(const std::string& subscription) {
  // Before the identity is looked for: an unregistered device must not ask for both once it is registered.
  Settings::shared().subscriptions.update([&](auto& list) { list.erase(subscription); });
  const auto identity = identityFor("subscriptionUnRegister");
  if (!identity) return;
  Log::debug("NetworkManager:subscriptionRegiter :[UNSUBSCRIPTION_LIST] : ", unsubscriptionList(), "---- ");
  auto body = callBody(
      kBody, {{"subscription", subscription}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->userRequest(*identity, "POST", endpoints::subscriptionUnregiterAPI, std::move(body)),
                [subscription](NetworkManager&, const Reply& reply) {
                  logSubscription(reply);
                  if (!reply.ok()) return;
                  Settings::shared().unsubscriptions.update([&](auto& names) { names.erase(subscription); });
                  Log::debug("NetworkManager:subscriptionRegiter :[UNSUBSCRIPTION_LIST] : ", unsubscriptionList());
                });
}

void NetworkManager::setTags(const std::string& name, const std::string& value) {
  const auto identity = identityFor("setTags");
  if (!identity) return;
  auto body = callBody(
      kBody, {{"name", name}, {"value", value}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->userRequest(*identity, "POST", endpoints::setTagsAPI, std::move(body)),
                [](NetworkManager&, const Reply& reply) { logTags(kSetTags, reply); });
}

void NetworkManager::unsetTags(const std::string& name) {
  const auto identity = identityFor("unsetTags");
  if (!identity) return;
  auto body = callBody(kBody, {{"name", name}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->userRequest(*identity, "POST", endpoints::unsetTagsAPI, std::move(body)),
                [](NetworkManager&, const Reply& reply) { logTags(kUnsetTags, reply); });
}

}  // namespace tarvo
