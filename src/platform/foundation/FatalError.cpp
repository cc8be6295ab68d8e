#include "platform/foundation/FatalError.h"

#include <cstdlib>
#include <string>

#include <tarvo/platform/SystemLog.h>

namespace tarvo::platform {

void fatalError(std::string_view message) {
  NSLog("Fatal error: " + std::string(message));
  std::abort();
}

}  // namespace tarvo::platform
