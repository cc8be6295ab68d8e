#include "platform/foundation/HostCall.h"

#include <exception>

#include "platform/foundation/FatalError.h"
#include "platform/foundation/Text.h"

namespace tarvo::platform {

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
