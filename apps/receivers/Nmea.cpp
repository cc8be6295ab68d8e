#include "Nmea.h"

#include <stdexcept>

namespace tarvo::receivers {
std::unique_ptr<Receiver> openNmea(const std::string&, NmeaOptions, Listener&) { throw std::invalid_argument("soon"); }
}  // namespace tarvo::receivers
