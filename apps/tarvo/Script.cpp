#include "Script.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <tarvo/platform/Device.h>
#include <tarvo/platform/LocationService.h>

#include "Arguments.h"
#include "Console.h"
#include "sandbox/wire/BoundedJson.h"

namespace tarvo::cli {
namespace {

using Json = nlohmann::json;
using platform::UIApplication;
using platform::UIDevice;
using platform::UIDeviceBatteryState;
using Happening = std::function<void(Tarvo&)>;

/// The number that stands for a word of `words`.
template <class Number>
Number named(const std::map<std::string, Number>& words, const Json& word, const std::string& key) {
  const auto found = word.is_string() ? words.find(word.get<std::string>()) : words.end();
  if (found == words.end()) throw std::invalid_argument("\"" + key + "\" is unknown: " + word.dump());
  return found->second;
}

/// Sets the state of the battery; without a level of its own it stays as full as it is.
Happening battery(UIDeviceBatteryState state, const Json& event) {
  const double level = event.value("level", -1.0);
  if (event.contains("level") && !(level >= 0 && level <= 1)) throw std::invalid_argument("\"level\" is not 0 to 1");
  return [state, level](Tarvo&) {
    UIDevice::current().setBattery(state, level < 0 ? UIDevice::current().batteryLevel() : level);
  };
}

Happening batteryOfState(const Json& event) {
  static const std::map<std::string, UIDeviceBatteryState> states = {
      {"unknown", UIDeviceBatteryState::unknown},
      {"unplugged", UIDeviceBatteryState::unplugged},
      {"charging", UIDeviceBatteryState::charging},
      {"full", UIDeviceBatteryState::full},
  };
  return battery(named(states, event.at("state"), "state"), event);
}

Happening permission(const Json& event) {
  using enum platform::CLAuthorizationStatus;
  static const std::map<std::string, platform::CLAuthorizationStatus> words = {
      {"notDetermined", notDetermined}, {"restricted", restricted},         {"denied", denied},
      {"always", authorizedAlways},     {"whenInUse", authorizedWhenInUse},
  };
  const auto status = named(words, event.at("status"), "status");
  return [status](Tarvo&) { platform::LocationService::shared().setAuthorizationStatus(status); };
}

Happening push(const Json& event) {
  const auto payload = platform::Value::fromJson(event.at("payload").dump());
  if (!payload || payload->asDictionary() == nullptr) throw std::invalid_argument("\"payload\" is no object");
  return [payload](Tarvo& tarvo) {
    if (!tarvo.didReceiveRemoteNotification(*payload->asDictionary()))
      std::cerr << "tarvo: the push message is not for the SDK" << std::endl;
  };
}

Happening state(void (UIApplication::*change)()) {
  return [change](Tarvo&) { (UIApplication::shared().*change)(); };
}

/// One kind of event: the keys that it may have beside "at" and "event", and what it does.
struct Kind {
  std::set<std::string> keys;
  std::function<Happening(const Json& event)> build;
};

const std::map<std::string, Kind>& kinds() {
  const auto fixed = [](Happening happening) {
    return Kind{{}, [happening = std::move(happening)](const Json&) { return happening; }};
  };
  static const std::map<std::string, Kind> all = {
      {"launch", fixed(state(&UIApplication::didFinishLaunching))},
      {"foreground", fixed(state(&UIApplication::didBecomeActive))},
      {"inactive", fixed(state(&UIApplication::willResignActive))},
      {"background", fixed(state(&UIApplication::didEnterBackground))},
      {"plug", {{"level"}, [](const Json& event) { return battery(UIDeviceBatteryState::charging, event); }}},
      {"unplug", {{"level"}, [](const Json& event) { return battery(UIDeviceBatteryState::unplugged, event); }}},
      {"battery", {{"state", "level"}, batteryOfState}},
      {"permission", {{"status"}, permission}},
      {"token",
       {{"token"},
        [](const Json& event) {
          return [token = event.at("token").get<std::string>()](Tarvo& tarvo) {
            tarvo.didRegisterForRemoteNotificationsWithDeviceToken(token);
          };
        }}},
      {"push", {{"payload"}, push}},
      {"wake", fixed([](Tarvo& tarvo) {
         tarvo.handleEventsForBackgroundURLSession(
             Tarvo::backgroundSessionID(), [] { std::cerr << "tarvo: background transfers have ended" << std::endl; });
       })},
      {"relaunch", fixed({})},
  };
  return all;
}

ScriptEvent readEvent(const std::string& line, platform::Date firstFix) {
  const Json json = parseBoundedJson(line);
  if (!json.is_object()) throw std::invalid_argument("no JSON object");
  const auto kind = kinds().find(json.at("event").get<std::string>());
  if (kind == kinds().end()) throw std::invalid_argument("unknown event " + json.at("event").dump());
  for (const auto& [key, value] : json.items())
    if (key != "at" && key != "event" && kind->second.keys.count(key) == 0)
      throw std::invalid_argument("\"" + key + "\" does not belong to this event");

  ScriptEvent event{firstFix, line, kind->second.build(json)};
  const Json& at = json.at("at");
  if (at.is_number()) {
    event.at += platform::Seconds(at.get<double>());
  } else if (const auto date = parseDate(at.get<std::string>())) {
    event.at = *date;
  } else {
    throw std::invalid_argument("\"at\" is neither ISO 8601 nor a number of seconds");
  }
  return event;
}

}  // namespace

std::vector<ScriptEvent> readScript(const std::string& file, platform::Date firstFix) {
  const auto text = readRegularFile(file);
  if (!text) throw Failure{kUsage, "the script " + file + " cannot be read"};
  std::istringstream input(*text);
  std::vector<ScriptEvent> events;
  std::string line;
  for (int number = 1; std::getline(input, line); ++number) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.find_first_not_of(" \t") == std::string::npos || line.front() == '#') continue;
    try {
      events.push_back(readEvent(line, firstFix));
    } catch (const std::exception& error) {  // of this reader, or of the JSON library
      throw Failure{kUsage, file + ":" + std::to_string(number) + ": " + error.what()};
    }
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const ScriptEvent& a, const ScriptEvent& b) { return a.at < b.at; });
  return events;
}

}  // namespace tarvo::cli
