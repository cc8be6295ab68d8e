#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace tarvo::test {

/// A process of its own that runs `body` and ends with its answer.
inline pid_t startProcess(const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  return child;
}

/// The status with which a child has ended; the negative signal that has killed it.
inline int endOf(pid_t child) {
  int status = 0;
  if (::waitpid(child, &status, 0) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline int inFreshProcess(const std::function<int()>& body) { return endOf(startProcess(body)); }

}  // namespace tarvo::test
