#include "unit/Requests.h"

#include <charconv>
#include <optional>
#include <system_error>
#include <utility>

#include <tarvo/HostKeys.h>
#include <tarvo/platform/Device.h>
#include <tarvo/platform/UserDefaults.h>

#include "unit/Flushing.h"

namespace tarvo::unit {
namespace {

using platform::Dictionary;
using platform::UIApplication;
using platform::UIDevice;
using platform::UIDeviceBatteryState;
using platform::Value;

constexpr double kLongestFlush = 3600;
/// Each has a thread, to its end, whether or not its client still waits.
constexpr int kMostFlushes = 8;

Dictionary failure(const std::string& why) { return {{"error", why}}; }

std::optional<std::int64_t> wholeNumber(const std::string& text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// "charging", or "charging:80" with the level in percent.
bool setBattery(const std::string& text) {
  static const std::map<std::string, UIDeviceBatteryState> states = {{"unknown", UIDeviceBatteryState::unknown},
                                                                     {"unplugged", UIDeviceBatteryState::unplugged},
                                                                     {"charging", UIDeviceBatteryState::charging},
                                                                     {"full", UIDeviceBatteryState::full}};
  const std::size_t colon = text.find(':');
  const auto state = states.find(text.substr(0, colon));
  const auto percent = colon == text.npos ? std::optional<std::int64_t>(-1) : wholeNumber(text.substr(colon + 1));
  if (state == states.end() || !percent || *percent > 100 || (*percent < 0 && colon != text.npos)) return false;
  UIDevice::current().setBattery(state->second, *percent < 0 ? -1 : static_cast<double>(*percent) / 100);
  return true;
}

}  // namespace

bool setState(const std::string& state) {
  UIApplication& application = UIApplication::shared();
  if (state == "active")
    application.didBecomeActive();
  else if (state == "inactive")
    application.willResignActive();
  else if (state == "background")
    application.didEnterBackground();
  else
    return false;
  return true;
}

bool setLogLevel(std::int64_t level) {
  if (level < 0 || level > 10) return false;
  platform::UserDefaults& defaults = platform::UserDefaults::standard();
  if (defaults.object(keys::kLogLevel) != std::optional<Value>(level)) defaults.set(keys::kLogLevel, level);
  return true;
}

Requests::Requests(Tarvo tarvo, const Loop& loop, Unit unit)
    : tarvo_(std::move(tarvo)), loop_(loop), unit_(std::move(unit)) {}

void Requests::take(const Dictionary& request, const Control::Reply& reply) {
  const std::string kind = platform::findString(request, "request").value_or("");
  if (kind == "status") return reply(unit_.status());
  if (kind != "flush" && kind != "push" && kind != "set") return reply(failure("no such request: " + kind));
  if (!unit_.isActive()) return reply(failure("the unit waits for the time, or ends"));
  if (kind == "push") return reply(push(request));
  if (kind == "set")
    return reply(
        set(platform::findString(request, "key").value_or(""), platform::findString(request, "value").value_or("")));
  flush(request, reply);
}

void Requests::flush(const Dictionary& request, const Control::Reply& reply) {
  const double seconds = platform::findNumber(request, "seconds").value_or(-1);
  if (!(seconds >= 0 && seconds <= kLongestFlush)) return reply(failure("seconds has to be from 0 to 3600"));
  if (flushes_ == kMostFlushes) return reply(failure("eight flushes are under way already"));
  try {
    flushBeside(loop_, platform::Seconds(seconds), [this, reply](FlushResult result) {
      --flushes_;
      const auto sync = tarvo_.syncStatus();
      const std::int64_t left = result == FlushResult::delivered ? 0 : sync.unsent + sync.awaiting + sync.unsaved;
      reply({{"left", left}, {"why", reasonOf(result)}});
    });
    ++flushes_;
  } catch (const std::system_error& error) {
    reply(failure(error.what()));
  }
}

Dictionary Requests::push(const Dictionary& request) {
  const Value* const payload = platform::find(request, "payload");
  if (payload == nullptr || payload->asDictionary() == nullptr) return failure("payload has to be an object");
  // The SDK would end the process.
  if (!Tarvo::deliveryOptions().dropsProtocolBreaks && tarvo_.health().fixes.received == 0)
    return failure("the unit has had no fix yet");
  const bool handled = tarvo_.didReceiveRemoteNotification(*payload->asDictionary());
  unit_.stored();
  return {{"handled", handled}};
}

Dictionary Requests::set(const std::string& key, const std::string& value) {
  if (key == "state" && !setState(value)) return failure("state has to be active, inactive or background");
  if (key == "battery" && !setBattery(value))
    return failure("battery has to be unknown, unplugged, charging or full, and a level in percent behind a colon");
  if (key == "log-level" && !setLogLevel(wholeNumber(value).value_or(-1)))
    return failure("log-level has to be from 0 to 10");
  if (key != "state" && key != "battery" && key != "log-level") return failure("no such key: " + key);
  unit_.stored();
  return {{"done", true}};
}

}  // namespace tarvo::unit
