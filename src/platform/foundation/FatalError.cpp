#include "platform/foundation/FatalError.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include <tarvo/platform/SystemLog.h>

#include "platform/foundation/Text.h"

namespace tarvo::platform {

void fatalError(std::string_view message) {
  try {
    NSLog("Fatal error: " + std::string(message));
  } catch (const std::bad_alloc&) {
    outOfMemory();
  }
  std::abort();
}

void outOfMemory() {
  constexpr std::string_view kLine = "Fatal error: out of memory\n";
  try {
    NSLog(kLine.substr(0, kLine.size() - 1));
  } catch (const std::bad_alloc&) {
    std::fwrite(kLine.data(), 1, kLine.size(), stderr);
  }
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
