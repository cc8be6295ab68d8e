#include "unit/Receivers.h"

#include <stdexcept>

#include "receivers/GeoClue.h"
#include "receivers/Gpsd.h"
#include "receivers/Nmea.h"
#include "unit/DeviceClock.h"
#include "unit/OptionReader.h"

namespace tarvo::unit {

std::string nameOfReceiver(const UnitOptions& options) {
  if (options.nmea) return *options.nmea == "-" ? "NMEA of standard input" : "NMEA of " + *options.nmea;
  if (options.geoclue) return "GeoClue";
  return "gpsd at " + (options.gpsd.value_or("").empty() ? "localhost:2947" : *options.gpsd);
}

std::unique_ptr<receivers::Receiver> openReceiver(const UnitOptions& options, receivers::Listener& listener) {
  try {
    if (options.nmea)
      return receivers::openNmea(*options.nmea, {static_cast<int>(options.nmeaBaud), dayOfBuild()}, listener);
    // Agents and the configuration know this program by the name of its package.
    if (options.geoclue) return receivers::openGeoClue("tarvo", listener);
    return receivers::openGpsd(options.gpsd.value_or(""), listener);
  } catch (const std::invalid_argument& error) {
    throw OptionError(error.what());
  }
}

}  // namespace tarvo::unit
