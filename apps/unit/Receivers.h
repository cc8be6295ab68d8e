#pragma once

#include <memory>
#include <string>

#include "receivers/Receiver.h"
#include "unit/UnitOptions.h"

namespace tarvo::unit {

/// "gpsd at localhost:2947", as people are told.
std::string nameOfReceiver(const UnitOptions& options);

/// The receiver that the options name. Errors: OptionError where this build or the address cannot be used.
std::unique_ptr<receivers::Receiver> openReceiver(const UnitOptions& options, receivers::Listener& listener);

}  // namespace tarvo::unit
