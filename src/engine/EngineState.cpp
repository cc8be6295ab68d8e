#include "engine/EngineState.h"

#include <random>

#include <tarvo/platform/Clock.h>

#include "platform/foundation/Text.h"
#include "settings/Names.h"

namespace tarvo {
namespace {

std::string label(std::string_view ending) { return platform::concat(names::kPrefix, ending); }

std::uint32_t drawRandomID() {
  std::random_device device;
  return std::uniform_int_distribution<std::uint32_t>(0, 999999999)(device);
}

}  // namespace

EngineState::EngineState()
    : serialQueue(label(".Tarvo.ios.mainQueue")),
      serialQueueLocation(label(".Tarvo.ios.Location")),
      serialQueueLastTrips(label(".Tarvo.ios.LastTrips")),
      serialQueuePOI(label(".Tarvo.ios.POI")),
      serialNetworkQueue(label(".Tarvo.ios.networkQueue")),
      serialNetworkDataQueue(label(".Tarvo.ios.networkDataQueue")),
      currentLocalisationMethod(std::string(method::kUnknown)),
      currentBatteryState(platform::UIDevice::current().batteryState()),
      randomID(drawRandomID()),
      startTime(platform::Clock::current()->now()),
      geofencingStartTime(platform::Clock::current()->now()) {}

}  // namespace tarvo
