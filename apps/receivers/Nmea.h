#pragma once

#include <memory>
#include <string>

#include <tarvo/platform/Date.h>

#include "Receiver.h"

namespace tarvo::receivers {

struct NmeaOptions {
  /// Bits a second of a serial line; 0 leaves it as it is, which is 9600 where nobody has set it. USB receivers ignore
  /// it.
  int baudRate = 0;
  /// When the program was built. A clock before it is not plausible, and neither is a receiver's date; 1970: any is.
  platform::Date built = platform::dateSince1970(0);
};

/// Fixes from lines of NMEA 0183. `source` is a serial device, a pseudo-terminal or a named pipe (a device), or a
/// recording: a regular file, or "-" for the standard input.
///
/// A device is tried again when it is not there or vanishes. A recording is read once, as fast as it comes; it goes on
/// where it was after a stop, and ends with Condition::ended.
///
/// Old receivers count weeks modulo 1024 and are behind by 1024 or 2048 weeks once that has run over. The date of a
/// device is put forward by as many cycles as bring it nearest to the installed clock where that is plausible, and
/// otherwise, where it lies before `built`, to the first date after it. Recordings keep their dates.
///
/// Threads and pace: as Feed.h says. Errors: std::invalid_argument, with a text for people, for an empty source and a
/// rate that no serial line has; std::system_error where the system has no descriptor or no thread left.
std::unique_ptr<Receiver> openNmea(const std::string& source, NmeaOptions options, Listener& listener);

}  // namespace tarvo::receivers
