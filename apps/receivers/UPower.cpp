#include "UPower.h"

#include <stdexcept>

#ifdef TARVO_WITH_SYSTEMD
#include <algorithm>
#include <utility>

#include "Bus.h"
#endif

namespace tarvo::receivers {

using platform::UIDeviceBatteryState;

bool systemShowsBattery() {
  const auto& device = platform::UIDevice::current();
  return device.batteryState() != UIDeviceBatteryState::unknown || device.batteryLevel() >= 0;
}

#ifdef TARVO_WITH_SYSTEMD

namespace {

constexpr const char* kService = "org.freedesktop.UPower";
constexpr const char* kDevice = "/org/freedesktop/UPower/devices/DisplayDevice";  // UPower promises that path
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";

using Battery = std::pair<UIDeviceBatteryState, double>;
constexpr Battery kNone{UIDeviceBatteryState::unknown, -1};

Battery batteryOf(std::map<std::string, double> device) {
  constexpr auto kUnknown = UIDeviceBatteryState::unknown, kUnplugged = UIDeviceBatteryState::unplugged,
                 kCharging = UIDeviceBatteryState::charging, kFull = UIDeviceBatteryState::full;
  // In UPower's order: unknown, charging, discharging, empty, full, pending charge, pending discharge.
  constexpr UIDeviceBatteryState states[] = {kUnknown, kCharging, kUnplugged, kUnplugged, kFull, kCharging, kUnplugged};
  if (device["IsPresent"] == 0) return kNone;
  const double state = device["State"];
  return {state < std::size(states) ? states[static_cast<std::size_t>(state)] : kUnknown,
          std::clamp(device["Percentage"] / 100, 0.0, 1.0)};
}

class Watch final : public UPower, private BusLoop::Client {
 public:
  explicit Watch(std::function<void(UIDeviceBatteryState, double)> changed) : changed_(std::move(changed)) {
    loop_.want(true);
  }

 private:
  void opened(sd_bus* bus) override {
    bus_ = bus;
    sd_bus_match_signal_async(bus, nullptr, kService, kDevice, kProperties, "PropertiesChanged",
                              handle<&Watch::onChange, Watch>, nullptr, this);
    onChange(nullptr);
  }
  void appeared() override { onChange(nullptr); }
  /// The properties are read anew: the signal may leave values out, and anybody on the bus can send one.
  void onChange(sd_bus_message*) {
    sd_bus_call_method_async(bus_, nullptr, kService, kDevice, kProperties, "GetAll", handle<&Watch::onDevice, Watch>,
                             this, "s", "org.freedesktop.UPower.Device");
  }
  void onDevice(sd_bus_message* answer) {
    // Where there is none the bus tells when one comes; most units never have one.
    if (sd_bus_message_is_method_error(answer, SD_BUS_ERROR_SERVICE_UNKNOWN) > 0) return;
    if (const auto error = errorOf(answer)) return loop_.giveUp(false, *error);
    loop_.settled();
    tell(batteryOf(numbersOf(answer)));
  }
  void failed(bool, const std::string&) override { tell(kNone); }
  void closing(sd_bus*) override {}
  void timeUp() override {}

  void tell(Battery battery) {
    if (battery != std::exchange(told_, battery)) changed_(battery.first, battery.second);
  }

  const std::function<void(UIDeviceBatteryState, double)> changed_;
  // Of the loop's thread.
  sd_bus* bus_ = nullptr;
  Battery told_ = kNone;
  BusLoop loop_{kService, "tarvo:upower", *this};  // last: it calls the rest
};

}  // namespace

std::unique_ptr<UPower> watchUPower(std::function<void(UIDeviceBatteryState, double)> changed) {
  return std::make_unique<Watch>(std::move(changed));
}

#else

std::unique_ptr<UPower> watchUPower(std::function<void(UIDeviceBatteryState, double)>) {
  throw std::invalid_argument("this program was built without libsystemd, so it cannot ask UPower");
}

#endif

}  // namespace tarvo::receivers
