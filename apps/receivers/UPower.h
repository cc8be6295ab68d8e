#pragma once

#include <functional>
#include <memory>

#include <tarvo/platform/Device.h>

namespace tarvo::receivers {

/// Watches UPower's display device, which stands for all that drives the machine when its mains are gone. Meant for
/// machines whose kernel shows no battery (see `systemShowsBattery`) but whose UPower knows one: a supply with a
/// battery behind USB, for instance. It watches until it is destroyed, which takes less than a second; the callback is
/// not called after that.
class UPower {
 public:
  virtual ~UPower() = default;
};

/// Tells the battery when it is first known and at each change: unknown and -1 when it is taken out or UPower has gone,
/// else the level from 0 to 1. Nothing is told before UPower has known a battery, so it does no harm where there is
/// none. An empty battery is unplugged; one that waits to be charged is charging (mains are there), one that waits to
/// be discharged is unplugged.
///
/// Threads: the callback comes on a thread of its own, which sleeps until UPower says something; it returns soon.
/// `UIDevice::setBattery` may be called from it.
/// Errors: std::invalid_argument where the program was built without libsystemd; std::system_error where the system has
/// no thread for it. A lost bus or service is tried again after 1, 2, 4 and so on up to 30 s.
std::unique_ptr<UPower> watchUPower(std::function<void(platform::UIDeviceBatteryState, double level)> changed);

/// Whether the SDK finds a battery by itself. To be asked after the SDK has been activated (that switches the
/// monitoring of the battery on) and before `UIDevice::setBattery` is called, which counts as one.
bool systemShowsBattery();

}  // namespace tarvo::receivers
