#pragma once

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>

namespace tarvo::receivers {

/// Wakes a thread that waits in poll(2).
///
/// Threads: any. Errors: the constructor throws std::system_error where the system has no descriptor left.
class Wake {
 public:
  Wake() : number_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (number_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Wake() { ::close(number_); }
  Wake(const Wake&) = delete;
  Wake& operator=(const Wake&) = delete;

  /// Readable from `give` to `take`.
  int descriptor() const { return number_; }
  void give() const { ::eventfd_write(number_, 1); }
  void take() const {
    eventfd_t ignored;
    ::eventfd_read(number_, &ignored);
  }

 private:
  const int number_;
};

/// A thread that takes none of the program's signals, which belong to its main thread. `name` has at most 15 bytes.
/// Errors: std::system_error where the system has no thread left.
inline std::thread startThread(const char* name, std::function<void()> body) {
  struct Blocked {
    Blocked() {
      sigset_t all;
      ::sigfillset(&all);
      ::pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~Blocked() { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    sigset_t before;
  } const blocked;
  std::thread thread(std::move(body));
  ::pthread_setname_np(thread.native_handle(), name);
  return thread;
}

}  // namespace tarvo::receivers
