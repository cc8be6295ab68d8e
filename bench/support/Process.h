#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvo::bench {

/// Says why and ends the process: a figure that could not be measured must not look like one.
[[noreturn]] void fail(std::string_view why);

/// One value of a figure, as bench_report reads it: a line "key value" on standard output.
void report(std::string_view key, double value);

/// A number of /proc/<pid>/<file>, e.g. "VmHWM" of "status" in KiB; "self" names this process.
std::int64_t statusNumber(const std::string& process, std::string_view name, const std::string& file = "status");

/// Peak of this process's resident memory.
inline double peakKiB() { return static_cast<double>(statusNumber("self", "VmHWM")); }

/// Seconds of a clock that never goes back.
double seconds();
/// CPU time of all threads of this process so far.
double cpuSeconds();

/// Starts this program's executable or a neighbour of it (`name`, from the same folder) with standard output in a pipe.
/// Ends it (SIGTERM) when it goes out of scope.
class Child {
 public:
  Child(const std::string& name, std::vector<std::string> arguments);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Waits for the child's next line.
  std::string line();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

/// A neighbour's path.
std::string neighbour(const std::string& name);

/// A backend in a process of its own that reads and drops what it is sent.
class Sink {
 public:
  /// Says so once it has taken `announceAt` requests.
  explicit Sink(std::int64_t announceAt = 0)
      : child_("bench_sink", {std::to_string(announceAt)}), port_(child_.line()) {}

  std::string url() const { return "http://127.0.0.1:" + port_ + "/api"; }
  void waitForAnnouncement() { (void)child_.line(); }

 private:
  Child child_;
  std::string port_;
};

}  // namespace tarvo::bench
