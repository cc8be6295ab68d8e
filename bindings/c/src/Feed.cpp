// What a host feeds: fixes, the permission, the application, the battery, push messages, credentials.

#include <cmath>
#include <utility>

#include <tarvo/platform/Clock.h>
#include <tarvo/platform/LocationService.h>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

using platform::CLAuthorizationStatus;
using platform::LocationService;
using platform::UIApplication;
using platform::UIApplicationState;
using platform::UIDeviceBatteryState;

static_assert(TARVO_NOT_DETERMINED == static_cast<int>(CLAuthorizationStatus::notDetermined));
static_assert(TARVO_RESTRICTED == static_cast<int>(CLAuthorizationStatus::restricted));
static_assert(TARVO_DENIED == static_cast<int>(CLAuthorizationStatus::denied));
static_assert(TARVO_AUTHORIZED_ALWAYS == static_cast<int>(CLAuthorizationStatus::authorizedAlways));
static_assert(TARVO_AUTHORIZED_WHEN_IN_USE == static_cast<int>(CLAuthorizationStatus::authorizedWhenInUse));
static_assert(TARVO_APP_ACTIVE == static_cast<int>(UIApplicationState::active));
static_assert(TARVO_APP_INACTIVE == static_cast<int>(UIApplicationState::inactive));
static_assert(TARVO_APP_BACKGROUND == static_cast<int>(UIApplicationState::background));
static_assert(TARVO_BATTERY_UNKNOWN == static_cast<int>(UIDeviceBatteryState::unknown));
static_assert(TARVO_BATTERY_UNPLUGGED == static_cast<int>(UIDeviceBatteryState::unplugged));
static_assert(TARVO_BATTERY_CHARGING == static_cast<int>(UIDeviceBatteryState::charging));
static_assert(TARVO_BATTERY_FULL == static_cast<int>(UIDeviceBatteryState::full));

tarvo_result givesText(tarvo_sdk* sdk, void (Tarvo::*operation)(const std::string&), const char* argument) {
  return bounded([&] {
    const auto object = at(sdk);
    (object->tarvo.*operation)(text(argument));
    return TARVO_OK;
  });
}

tarvo_result givesTexts(tarvo_sdk* sdk, void (Tarvo::*operation)(const std::string&, const std::string&),
                        const char* name, const std::string& value) {
  const auto object = at(sdk);
  (object->tarvo.*operation)(text(name), value);
  return TARVO_OK;
}

}  // namespace

bool tarvo::c::canTakePush(Tarvo& tarvo) {
  const LocationService& service = LocationService::shared();
  if (service.authorizationStatus() != CLAuthorizationStatus::authorizedAlways)
    return tarvo.locationManager().getLastLocation().has_value();
  const auto fixes = service.statistics();
  return fixes.received > fixes.notFinite + fixes.offTheGlobe + fixes.impossibleTime;
}

extern "C" {

void tarvo_fix_init(tarvo_fix* fix) {
  if (fix == nullptr) return;
  platform::CLLocation unknown;
  unknown.timestamp = platform::dateSince1970(tarvo_now());
  *fix = fixOf(unknown);
}

tarvo_result tarvo_deliver(const tarvo_fix* fixes, size_t count) {
  return bounded([&] {
    if (count == 0) return TARVO_OK;
    required(fixes);
    std::vector<platform::CLLocation> locations;
    if (count > locations.max_size()) return TARVO_BAD_ARGUMENT;
    locations.reserve(count);
    for (size_t i = 0; i < count; ++i) locations.push_back(locationOf(fixes[i]));
    LocationService::shared().deliver(locations);
    return TARVO_OK;
  });
}

tarvo_result tarvo_report_failure(int64_t code) {
  return bounded([&] {
    if (code != 0 && code != 1) return TARVO_BAD_ARGUMENT;
    LocationService::shared().fail(code);
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_permission(tarvo_permission permission) {
  return bounded([&] {
    const auto status = static_cast<CLAuthorizationStatus>(oneOf(permission, TARVO_AUTHORIZED_WHEN_IN_USE));
    LocationService::shared().setAuthorizationStatus(status);
    return TARVO_OK;
  });
}

tarvo_permission tarvo_get_permission(void) {
  tarvo_permission permission = TARVO_NOT_DETERMINED;
  bounded([&] {
    permission = static_cast<tarvo_permission>(LocationService::shared().authorizationStatus());
    return TARVO_OK;
  });
  return permission;
}

tarvo_result tarvo_app_launched(void) {
  return bounded([] {
    UIApplication::shared().didFinishLaunching();
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_app_state(tarvo_app_state state) {
  return bounded([&] {
    UIApplication& application = UIApplication::shared();
    switch (oneOf(state, TARVO_APP_BACKGROUND)) {
      case TARVO_APP_ACTIVE:
        application.didBecomeActive();
        break;
      case TARVO_APP_INACTIVE:
        application.willResignActive();
        break;
      case TARVO_APP_BACKGROUND:
        application.didEnterBackground();
        break;
    }
    return TARVO_OK;
  });
}

tarvo_app_state tarvo_get_app_state(void) {
  tarvo_app_state state = TARVO_APP_ACTIVE;
  bounded([&] {
    state = static_cast<tarvo_app_state>(UIApplication::shared().applicationState());
    return TARVO_OK;
  });
  return state;
}

tarvo_result tarvo_set_battery(tarvo_battery state, double level) {
  return bounded([&] {
    const auto known = static_cast<UIDeviceBatteryState>(oneOf(state, TARVO_BATTERY_FULL));
    if (!(level >= 0 && level <= 1) && level != -1) return TARVO_BAD_ARGUMENT;
    platform::UIDevice::current().setBattery(known, level);
    return TARVO_OK;
  });
}

tarvo_result tarvo_push_received(tarvo_sdk* sdk, const char* json) {
  return bounded([&] {
    const auto object = at(sdk);
    const platform::Dictionary message = jsonObject(json);
    if (platform::findString(message, "messageFrom") == "tarvo" &&
        Tarvo::ACTIVATE_STATUS() >= TARVO_BACKEND_BACKGROUND && !canTakePush(object->tarvo))
      return TARVO_TOO_EARLY;
    return object->tarvo.didReceiveRemoteNotification(message) ? TARVO_OK : TARVO_ABSENT;
  });
}

tarvo_result tarvo_set_device_token(tarvo_sdk* sdk, const char* token) {
  return givesText(sdk, &Tarvo::didRegisterForRemoteNotificationsWithDeviceToken, token);
}
tarvo_result tarvo_set_api_key_secret(tarvo_sdk* sdk, const char* secret) {
  return givesText(sdk, &Tarvo::setApiKeySecret, secret);
}
tarvo_result tarvo_set_unsubscription(tarvo_sdk* sdk, const char* name) {
  return givesText(sdk, &Tarvo::setUnSubscription, name);
}
tarvo_result tarvo_unset_tag(tarvo_sdk* sdk, const char* name) { return givesText(sdk, &Tarvo::unsetTags, name); }

tarvo_result tarvo_set_subscription(tarvo_sdk* sdk, const char* name, const char* json) {
  return bounded([&] {
    c::json(json);
    return givesTexts(sdk, &Tarvo::setSubscription, name, json);
  });
}
tarvo_result tarvo_set_tag(tarvo_sdk* sdk, const char* name, const char* value) {
  return bounded([&] { return givesTexts(sdk, &Tarvo::setTags, name, text(value)); });
}

tarvo_result tarvo_upload(tarvo_sdk* sdk) {
  return bounded([&] {
    at(sdk)->tarvo.locationManager().sendDataInBatchToRemoteWebServer();
    return TARVO_OK;
  });
}

tarvo_result tarvo_background_events(tarvo_sdk* sdk, const char* identifier, void (*done)(void* user), void* user,
                                     void (*released)(void* user)) {
  return bounded([&] {
    const auto object = at(sdk);
    const std::string session = text(identifier);
    if (session != Tarvo::backgroundSessionID()) return TARVO_ABSENT;
    auto handler = object->host.once(std::make_shared<Once>(done, user, released));
    object->tarvo.handleEventsForBackgroundURLSession(session, std::move(handler));
    return TARVO_OK;
  });
}

}  // extern "C"
