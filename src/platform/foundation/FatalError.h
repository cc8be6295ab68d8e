#pragma once

#include <new>
#include <string_view>

namespace tarvo::platform {

/// Ends the process for a programming error or a missing resource that the build guarantees: writes
/// "Fatal error: " and the message to the system log, then aborts. Threads: any.
[[noreturn]] void fatalError(std::string_view message);

/// Ends the process for want of memory, in the same way. Needs none itself; only a sink that does is not told.
[[noreturn]] void outOfMemory();

/// Does work of the library that nobody could go on from if memory ran out in its midst: then the process ends.
template <class Call>
decltype(auto) orOutOfMemory(Call&& call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    outOfMemory();
  }
}

/// Ends the process for the exception that is being handled, which `callback`, code of the host, has thrown: its name
/// and what it says go to the system log. Threads: any.
[[noreturn]] void hostThrew(std::string_view callback);

/// Runs code of the host; `callback` is the name that the host knows it by. Nobody above the call could go on from an
/// exception with everything in order, so one that leaves it ends the process, at a place that can tell whose it is.
/// Call it with no lock held.
template <class Call>
decltype(auto) callHost(std::string_view callback, Call&& call) {
  try {
    return call();
  } catch (...) {
    hostThrew(callback);
  }
}

}  // namespace tarvo::platform
