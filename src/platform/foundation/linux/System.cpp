#include "platform/foundation/System.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <system_error>

namespace tarvo::platform {
namespace {

/// The kernel keeps this many bytes of a thread's name.
constexpr std::size_t kThreadNameLength = 15;

}  // namespace

Seconds sinceBoot() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::filesystem::path executableFile() {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/exe", ignored);
}

const char* programName() { return program_invocation_short_name; }

const char* trustedEnvironment(const char* name) { return ::secure_getenv(name); }

// The first thread's number is the process's.
bool isFirstThread() { return threadNumber() == ::getpid(); }
std::int64_t threadNumber() { return ::syscall(SYS_gettid); }

void nameThread(const std::string& name) {
  ::pthread_setname_np(::pthread_self(), name.substr(0, kThreadNameLength).c_str());
}

bool fillWithRandom(std::span<std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t filled = ::getrandom(bytes.data(), bytes.size(), 0);
    if (filled < 0 && errno != EINTR) return false;
    if (filled > 0) bytes = bytes.subspan(static_cast<std::size_t>(filled));
  }
  return true;
}

int makeTemporaryFile(std::string& name) { return ::mkostemp(name.data(), O_CLOEXEC); }

bool tryLockFile(int descriptor) { return ::flock(descriptor, LOCK_EX | LOCK_NB) == 0; }

int WakeUp::descriptor() {
  if (ends_[0] < 0) ends_[0] = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  return ends_[0];
}

void WakeUp::clear() {
  std::uint64_t signals = 0;
  [[maybe_unused]] const auto got = ::read(ends_[0], &signals, sizeof signals);
}

void WakeUp::signal() {
  const int descriptor = ends_[0];
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = descriptor < 0 ? 0 : ::write(descriptor, &one, sizeof one);
}

}  // namespace tarvo::platform
