#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/foundation/Descriptor.h"

namespace tarvo::test {

/// Enough on a busy machine for what takes no time; TARVO_PATIENCE sets other seconds.
inline const std::chrono::seconds kPatience{std::getenv("TARVO_PATIENCE") ? std::atoi(std::getenv("TARVO_PATIENCE"))
                                                                          : 10};

/// Whether something comes true in time.
inline bool comes(const std::function<bool()>& happens, std::chrono::milliseconds patience = kPatience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!happens()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

/// The file of this program, as it was started.
const std::filesystem::path& program();

/// What this program says of itself (Main.cpp) when it is started another time, by a file and under a name.
std::string toldByAnother(const char* what, const std::filesystem::path& file = program(), const char* name = "other");

/// What a forked child writes into its descriptor.
std::string toldByChild(const std::function<void(int descriptor)>& child);

inline bool isReadable(int descriptor, std::chrono::milliseconds patience = {}) {
  pollfd polled{descriptor, POLLIN, 0};
  return ::poll(&polled, 1, static_cast<int>(patience.count())) == 1 && (polled.revents & POLLIN) != 0;
}

inline int lowestFreeDescriptor() { return platform::Descriptor(::open("/", O_RDONLY | O_CLOEXEC)).get(); }

/// While it lives the process can open nothing more, or only so many.
class FewDescriptors {
 public:
  explicit FewDescriptors(int more = 0) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit few = before_;
    few.rlim_cur = static_cast<rlim_t>(lowestFreeDescriptor() + more);
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  FewDescriptors(const FewDescriptors&) = delete;
  FewDescriptors& operator=(const FewDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace tarvo::test
