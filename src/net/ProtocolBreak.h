#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "log/Log.h"

namespace tarvo {

/// Leaves the work on something that breaks the protocol. Thrown by `protocolBreak` alone and caught by
/// `droppingProtocolBreaks` alone.
struct ProtocolBreak {
  std::string message;
};

/// Ends the process, for what the backend or a push message wants cannot be done; with
/// `DeliveryOptions::dropsProtocolBreaks` it leaves the nearest `droppingProtocolBreaks` instead. Call it only inside
/// one. Threads: any.
[[noreturn]] void protocolBreak(std::string_view message);

/// Does `work`, and the rest of it not when it breaks the protocol: what was done until then stays. The message is a
/// line of the log then. Threads: any; no lock is held around a break.
template <class Work>
void droppingProtocolBreaks(Work&& work) {
  try {
    std::forward<Work>(work)();
  } catch (const ProtocolBreak& broken) {
    Log::error(broken.message);
  }
}

}  // namespace tarvo
