#pragma once

#include <string>

#include "Feed.h"

namespace tarvo::receivers {

/// A socket that is connected to `host`, a name or an address, and does not block; -1 when the wait says that nobody
/// wants it any more. A peer whose machine vanishes is noticed after a minute, by the system. The caller closes it.
///
/// Threads: any. Names are looked up on a thread of the C library's, which a name server can keep longer than the
/// caller waits. Errors: Lost, also when a name server or an address has not answered within ten seconds.
int connectTo(const std::string& host, const std::string& port, Waiting& waiting);

}  // namespace tarvo::receivers
