#pragma once

#include <memory>
#include <string>

#include "Receiver.h"

namespace tarvo::receivers {

/// Fixes of a gpsd, local or on another machine.
///
/// `address` is HOST, HOST:PORT, [IPV6] or [IPV6]:PORT; empty stands for localhost:2947. A fix is what gpsd reports in
/// two or three dimensions and with a time. Its accuracy is gpsd's own estimate; where gpsd has none, that of
/// Accuracy.h. What of a fix gpsd does not know is invalid in it.
///
/// Of several receivers of one gpsd that one is used which has given the first fix, until it is silent for ten seconds
/// or another is more than twice as accurate: a track that jumps between two antennas helps nobody. Reports of one
/// device and one moment become one fix, the latest and most complete.
///
/// Threads and pace: as Feed.h says; nothing blocks, neither a name server nor a machine that does not answer.
/// Errors: std::invalid_argument, with a text for people, for an address that is none and in a build without libgps;
/// std::system_error where the system has no descriptor or no thread left.
std::unique_ptr<Receiver> openGpsd(const std::string& address, Listener& listener);

}  // namespace tarvo::receivers
