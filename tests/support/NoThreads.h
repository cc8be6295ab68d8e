#pragma once

#include <pthread.h>

namespace tarvo::test {

/// While it lives no thread can be made: each would get a stack that does not fit into the address space.
class NoThreads {
 public:
  NoThreads() {
    ::pthread_getattr_default_np(&before_);
    pthread_attr_t attributes;
    ::pthread_getattr_default_np(&attributes);
    ::pthread_attr_setstacksize(&attributes, std::size_t{1} << 56);
    ::pthread_setattr_default_np(&attributes);
    ::pthread_attr_destroy(&attributes);
  }
  ~NoThreads() {
    ::pthread_setattr_default_np(&before_);
    ::pthread_attr_destroy(&before_);
  }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_;
};

}  // namespace tarvo::test
