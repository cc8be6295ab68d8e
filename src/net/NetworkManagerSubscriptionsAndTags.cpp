#include <utility>

#include <tarvo/NetworkManager.h>

#include "log/Log.h"
#include "net/ClientState.h"
#include "net/Messages.h"

namespace tarvo {
namespace {

using platform::Dictionary;
using platform::Value;

// What goes wrong before a request of any of the four calls is told in the words of the registration, and so is all
// that becomes of a subscription, in both directions.
constexpr std::string_view kProblem = "NetworkManager:subscriptionRegiter [loc] JSON conversion problem mainThread:";
constexpr std::string_view kUnresolved = "NetworkManager:subscriptionRegiter Unresolved error ";

constexpr CallTexts kSubscription{.problem = kProblem,
                                  .unresolved = kUnresolved,
                                  .status = " NetworkManager:subscriptionRegiter : httpstatus : ",
                                  .response = " NetworkManager:subscriptionRegiter :réponse = ",
                                  .error = "NetworkManager:subscriptionRegiter :[error] : ",
                                  .bareError = true};
constexpr CallTexts kSetTags{.problem = kProblem,
                             .unresolved = kUnresolved,
                             .status = " NetworkManager:setTags : httpstatus : ",
                             .response = " NetworkManager:setTags :réponse = ",
                             .error = "NetworkManager:setTags :[error] : ",
                             .success = "NetworkManager:setTags :[success] ",
                             .bareError = true};
constexpr CallTexts kUnsetTags{.problem = kProblem,
                               .unresolved = kUnresolved,
                               .status = " NetworkManager:unsetTags : httpstatus : ",
                               .response = " NetworkManager:unsetTags :réponse = ",
                               .error = "NetworkManager:unsetTags :[error] : ",
                               .success = "NetworkManager:unsetTags :[success] ",
                               .bareError = true};

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

}  // namespace

void NetworkManager::subscriptionRegiter(const std::string& subscription, const std::string& notification) {
  const auto identity = identityFor("subscriptionRegiter");
  if (!identity) return;
  Log::debug("NetworkManager:subscriptionRegiter :[SUBSCRIPTION_LIST] : ", subscriptionList(), " ---");
  auto body = callBody(kSubscription, {{"subscription", subscription},
                                       {"envir", envir()},
                                       {"app_id", Settings::shared().bundleID.get()},
                                       {"notification", notification}});
  if (!body) return;
  state_->start(state_->requestFrom(*identity, "POST", endpoints::subscriptionRegisterAPI, std::move(body)),
                [subscription](NetworkManager&, const Reply& reply) {
                  logOutcome(kSubscription, reply);
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
  auto body =
      callBody(kSubscription,
               {{"subscription", subscription}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->requestFrom(*identity, "POST", endpoints::subscriptionUnregiterAPI, std::move(body)),
                [subscription](NetworkManager&, const Reply& reply) {
                  logOutcome(kSubscription, reply);
                  if (!reply.ok()) return;
                  Settings::shared().unsubscriptions.update([&](auto& names) { names.erase(subscription); });
                  Log::debug("NetworkManager:subscriptionRegiter :[UNSUBSCRIPTION_LIST] : ", unsubscriptionList());
                });
}

void NetworkManager::setTags(const std::string& name, const std::string& value) {
  const auto identity = identityFor("setTags");
  if (!identity) return;
  auto body = callBody(
      kSetTags, {{"name", name}, {"value", value}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->requestFrom(*identity, "POST", endpoints::setTagsAPI, std::move(body)),
                [](NetworkManager&, const Reply& reply) { logOutcome(kSetTags, reply); });
}

void NetworkManager::unsetTags(const std::string& name) {
  const auto identity = identityFor("unsetTags");
  if (!identity) return;
  auto body = callBody(kUnsetTags, {{"name", name}, {"envir", envir()}, {"app_id", Settings::shared().bundleID.get()}});
  if (!body) return;
  state_->start(state_->requestFrom(*identity, "POST", endpoints::unsetTagsAPI, std::move(body)),
                [](NetworkManager&, const Reply& reply) { logOutcome(kUnsetTags, reply); });
}

}  // namespace tarvo
