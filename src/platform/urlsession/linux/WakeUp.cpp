#include "platform/urlsession/WakeUp.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace tarvo::platform {

int WakeUp::descriptor() {
  if (descriptor_ < 0) descriptor_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  return descriptor_;
}

void WakeUp::clear() {
  std::uint64_t signals = 0;
  [[maybe_unused]] const auto got = ::read(descriptor_, &signals, sizeof signals);
}

void WakeUp::signal() {
  const int descriptor = descriptor_;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = descriptor < 0 ? 0 : ::write(descriptor, &one, sizeof one);
}

}  // namespace tarvo::platform
