#include "platform/foundation/BootTime.h"

#include <ctime>

namespace tarvo::platform {

Seconds sinceBoot() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace tarvo::platform
