#include "platform/foundation/FatalError.h"

#include <cstdlib>
#include <exception>
#include <string>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

void fatalError(std::string_view message) {
  NSLog("Fatal error: " + std::string(message));
  std::abort();
}

void hostThrew(std::string_view callback) {
  try {
    throw;
  } catch (const std::exception& error) {
    fatalError(concat(callback, " threw an exception: ", error.what()));
  } catch (...) {
    fatalError(concat(callback, " threw an exception"));
  }
}

}  // namespace tarvo::platform
