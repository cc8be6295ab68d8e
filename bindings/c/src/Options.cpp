// Options, limits, and the values of the process.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <tarvo/LocationManager.h>
#include <tarvo/NetworkManager.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "Objects.h"

using namespace tarvo;     // NOLINT(google-build-using-namespace): this file is the C side of it
using namespace tarvo::c;  // NOLINT(google-build-using-namespace)

namespace {

using platform::UIDevice;
using platform::Value;
using Texts = std::map<std::string, std::string>;

tarvo_delivery_options optionsNow() {
  const DeliveryOptions options = Tarvo::deliveryOptions();
  return {.size = 0,
          .least_pass_interval = options.leastPassInterval.count(),
          .confirmed = options.confirmed,
          .network_is_metered = options.networkIsMetered,
          .drops_protocol_breaks = options.dropsProtocolBreaks,
          .has_metered_bytes_per_day = options.meteredBytesPerDay.has_value(),
          .metered_bytes_per_day = options.meteredBytesPerDay.value_or(0)};
}

tarvo_storage_limits limitsNow() {
  const StorageLimits limits = Tarvo::storageLimits();
  const auto age = [](const std::optional<platform::Seconds>& bound) { return bound ? bound->count() : 0; };
  return {.size = 0,
          .position_age = age(limits.positionAge),
          .log_age = age(limits.logAge),
          .store_bytes = limits.storeBytes.value_or(0),
          .log_bytes = limits.logBytes.value_or(0)};
}

std::optional<platform::Seconds> ageOf(double seconds) {
  if (span(seconds) == 0) return std::nullopt;
  return platform::Seconds(seconds);
}

std::optional<std::uint64_t> bytesOf(std::uint64_t bytes) { return bytes == 0 ? std::nullopt : std::optional(bytes); }

std::string jsonOf(Value value) {
  auto json = std::move(value).toJson();
  if (!json) throw Refusal{TARVO_INTERNAL};  // a text that is no UTF-8 has come from elsewhere
  return *std::move(json);
}

template <class List>
std::string listOf(const List& texts) {
  platform::Array list;
  for (const auto& one : texts) list.emplace_back(one);
  return jsonOf(std::move(list));
}

std::string objectOf(const Texts& texts) {
  platform::Dictionary object;
  for (const auto& [name, value] : texts) object.emplace(name, value);
  return jsonOf(std::move(object));
}

const std::string& stringIn(const Value& value) {
  if (value.asString() == nullptr) throw Refusal{TARVO_BAD_JSON};
  return *value.asString();
}

template <class List>
List textsOf(const char* text) {
  const Value value = json(text);
  if (value.asArray() == nullptr) throw Refusal{TARVO_BAD_JSON};
  List texts;
  for (const Value& one : *value.asArray()) texts.insert(texts.end(), stringIn(one));
  return texts;
}

Texts namedTextsOf(const char* text) {
  Texts texts;
  for (const auto& [name, value] : jsonObject(text)) texts.emplace(name, stringIn(value));
  return texts;
}

bool truthOf(const char* text) {
  const auto truth = json(text).asBool();
  if (!truth) throw Refusal{TARVO_BAD_JSON};
  return *truth;
}

std::optional<std::string> valueOf(tarvo_value value, const LocationManager& engine) {
  switch (value) {
    case TARVO_API_KEY:
      return Tarvo::tarvoapiKey();
    case TARVO_CLIENT_ID:
      return Tarvo::clientID();
    case TARVO_BUNDLE_ID:
      return Tarvo::bundleID();
    case TARVO_DEVICE_TOKEN:
      return Tarvo::deviceToken();
    case TARVO_TOKEN_SENT:
      return jsonOf(Tarvo::tokenSent());
    case TARVO_SET_TAGS_LIST:
      return objectOf(Tarvo::SET_TAGS_LIST());
    case TARVO_UNSET_TAGS_LIST:
      return listOf(Tarvo::UNSET_TAGS_LIST());
    case TARVO_BACKGROUND_SESSION_ID:
      return Tarvo::backgroundSessionID();
    case TARVO_REMOTE_WEB_SERVER_URL:
      return LocationManager::remoteWebServerURL();
    case TARVO_USER_UUID:
      return LocationManager::userUUID();
    case TARVO_TERRAMESH_DATA_VERSION:
      return LocationManager::terrameshDataVersion();
    case TARVO_IDENTIFIER_FOR_VENDOR:
      return UIDevice::current().identifierForVendor();
    case TARVO_SUBSCRIPTION_LIST:
      return objectOf(NetworkManager::SUBSCRIPTION_LIST());
    case TARVO_UNSUBSCRIPTION_LIST:
      return listOf(NetworkManager::UNSUBSCRIPTION_LIST());
    case TARVO_API_KEY_SECRET:
      return NetworkManager::apiKeySecret();
    case TARVO_CALL_FROM_SERVER_KEY:
      return LocationManager::callFromServerNotificationKey();
    case TARVO_ENGINE_API_KEY:
      return engine.apiKey();
    case TARVO_STARTED:
      return jsonOf(engine.tarvoStarted());
    case TARVO_ALREADY_RECEIVED_UUID:
      return jsonOf(engine.alreadyReceivedUUID());
    case TARVO_RANDOM_ID:
      return jsonOf(engine.randomID());
    case TARVO_APP_STATE:
      return LocationManager::getAppState();
    case TARVO_SECRET_KEY:
      return NetworkManager::SECRET_KEY;
    case TARVO_UUID_SECRET:
      return NetworkManager::UUID_SECRET_KEY();
    case TARVO_CHANNEL_IS_HELD:
      return jsonOf(NetworkManager::CANAL_LOCK());
    case TARVO_CHANNEL_TAKEN_AT:
      return jsonOf(platform::secondsSince1970(NetworkManager::CANAL_TIME_LOCK()));
    case TARVO_LAST_TRIP_ID:
      return jsonOf(NetworkManager::LAST_TRIP_ID());
  }
  throw Refusal{TARVO_BAD_ARGUMENT};
}

/// False where the SDK refuses it.
bool setValue(tarvo_value value, const char* given) {
  switch (value) {
    case TARVO_API_KEY:
      return Tarvo::setTarvoapiKey(text(given)), true;
    case TARVO_CLIENT_ID:
      return Tarvo::setClientID(text(given));
    case TARVO_BUNDLE_ID:
      return Tarvo::setBundleID(text(given)), true;
    case TARVO_DEVICE_TOKEN:
      return Tarvo::setDeviceToken(text(given)), true;
    case TARVO_TOKEN_SENT:
      return Tarvo::setTokenSent(truthOf(given)), true;
    case TARVO_SET_TAGS_LIST:
      return Tarvo::setSET_TAGS_LIST(namedTextsOf(given)), true;
    case TARVO_UNSET_TAGS_LIST:
      return Tarvo::setUNSET_TAGS_LIST(textsOf<std::vector<std::string>>(given)), true;
    case TARVO_SUBSCRIPTION_LIST:
      return NetworkManager::setSUBSCRIPTION_LIST(namedTextsOf(given)), true;
    case TARVO_UNSUBSCRIPTION_LIST:
      return NetworkManager::setUNSUBSCRIPTION_LIST(textsOf<std::set<std::string>>(given)), true;
    case TARVO_API_KEY_SECRET:
      return NetworkManager::setApiKeySecret(text(given)), true;
    case TARVO_IDENTIFIER_FOR_VENDOR:
      return UIDevice::current().setIdentifierForVendor(text(given));
    case TARVO_BACKGROUND_SESSION_ID:
    case TARVO_REMOTE_WEB_SERVER_URL:
    case TARVO_USER_UUID:
    case TARVO_TERRAMESH_DATA_VERSION:
    case TARVO_CALL_FROM_SERVER_KEY:
    case TARVO_ENGINE_API_KEY:
    case TARVO_STARTED:
    case TARVO_ALREADY_RECEIVED_UUID:
    case TARVO_RANDOM_ID:
    case TARVO_APP_STATE:
    case TARVO_SECRET_KEY:
    case TARVO_UUID_SECRET:
    case TARVO_CHANNEL_IS_HELD:
    case TARVO_CHANNEL_TAKEN_AT:
    case TARVO_LAST_TRIP_ID:
      break;
  }
  throw Refusal{TARVO_BAD_ARGUMENT};
}

}  // namespace

extern "C" {

tarvo_result tarvo_get_delivery_options(tarvo_sdk* sdk, tarvo_delivery_options* out) {
  return bounded([&] {
    at(sdk);
    write(out, optionsNow());
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_delivery_options(tarvo_sdk* sdk, const tarvo_delivery_options* options) {
  return bounded([&] {
    at(sdk);
    const auto wanted = read(options, optionsNow());
    DeliveryOptions next;
    next.confirmed = wanted.confirmed != 0;
    next.leastPassInterval = platform::Seconds(span(wanted.least_pass_interval));
    next.networkIsMetered = wanted.network_is_metered != 0;
    if (wanted.has_metered_bytes_per_day != 0) next.meteredBytesPerDay = wanted.metered_bytes_per_day;
    next.dropsProtocolBreaks = wanted.drops_protocol_breaks != 0;
    Tarvo::setDeliveryOptions(next);
    return TARVO_OK;
  });
}

tarvo_result tarvo_get_storage_limits(tarvo_sdk* sdk, tarvo_storage_limits* out) {
  return bounded([&] {
    at(sdk);
    write(out, limitsNow());
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_storage_limits(tarvo_sdk* sdk, const tarvo_storage_limits* limits) {
  return bounded([&] {
    at(sdk);
    const auto wanted = read(limits, limitsNow());
    Tarvo::setStorageLimits({.positionAge = ageOf(wanted.position_age),
                             .storeBytes = bytesOf(wanted.store_bytes),
                             .logAge = ageOf(wanted.log_age),
                             .logBytes = bytesOf(wanted.log_bytes)});
    return TARVO_OK;
  });
}

tarvo_result tarvo_get_value(tarvo_sdk* sdk, tarvo_value value, char** out) {
  return bounded([&] {
    const auto object = at(sdk);
    required(out);
    const auto text = valueOf(value, object->tarvo.locationManager());
    if (!text) return TARVO_ABSENT;
    *out = given(*text);
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_value(tarvo_sdk* sdk, tarvo_value value, const char* text) {
  return bounded([&] {
    at(sdk);
    return setValue(value, text) ? TARVO_OK : TARVO_REFUSED;
  });
}

tarvo_result tarvo_get_setting(tarvo_sdk* sdk, const char* key, char** json) {
  return bounded([&] {
    at(sdk);
    required(json);
    auto setting = platform::UserDefaults::standard().object(text(key));
    if (!setting) return TARVO_ABSENT;
    *json = given(jsonOf(*std::move(setting)));
    return TARVO_OK;
  });
}

tarvo_result tarvo_set_setting(tarvo_sdk* sdk, const char* key, const char* json) {
  return bounded([&] {
    at(sdk);
    platform::UserDefaults::standard().set(text(key), json == nullptr ? Value() : c::json(json));
    return TARVO_OK;
  });
}

}  // extern "C"
