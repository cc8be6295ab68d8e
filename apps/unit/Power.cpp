#include "unit/Power.h"

#include <exception>
#include <utility>

#include "receivers/UPower.h"

namespace tarvo::unit {

Power::Power(const Loop& loop, std::function<void()> changed) {
  if (receivers::systemShowsBattery()) return;
  try {
    source_ = receivers::watchUPower([&loop, changed = std::move(changed)](auto state, double level) {
      platform::UIDevice::current().setBattery(state, level);
      loop.post(changed);
    });
  } catch (const std::exception&) {
    // A device without it is one without a battery.
    source_.reset();
  }
}

Power::~Power() = default;

}  // namespace tarvo::unit
