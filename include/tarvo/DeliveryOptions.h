/// @file
/// How positions reach the backend.
#pragma once

#include <cstdint>
#include <optional>

#include <tarvo/platform/Date.h>

namespace tarvo {

/// How positions reach the backend, and how much of it a host leaves to chance. As constructed, everything is as the
/// design has it: about one request for each fix, and a batch whose transfer fails counts as received. A property list
/// can say all of it too (tarvo/HostKeys.h).
struct DeliveryOptions {
  /// A batch is acknowledged only by a complete answer of the address that was asked (a redirect is not followed) with
  /// status 200 whose "success" is true. After anything else its positions stay, and the next try waits: at random
  /// between nothing and a bound that starts at 1 s, doubles with each failure and ends at 15 min; at least as long as
  /// "Retry-After" asks, up to a day; 15 min after 401 and 403, which the system log tells once. A success, a network
  /// that has come back and the host's own `LocationManager::sendDataInBatchToRemoteWebServer` end the wait. Nothing
  /// tries by itself: what has waited goes with the next fix, push message or call. The disk is made to hold a batch
  /// before it is posted, so that a power cut takes nothing that the backend may have.
  bool confirmed = false;
  /// The least time from one batch to the next that an event may post. A backlog is not held up by it: after a full
  /// batch the next one follows. Nor is the host's own call.
  platform::Seconds leastPassInterval{0};
  /// What the network in use costs; a host sets it as the network changes.
  bool networkIsMetered = false;
  /// Bytes of a day (UTC, by the installed clock) that batches may send and receive while the network is metered,
  /// headers included but not what TLS and the network itself add; after them positions wait, also for the host's own
  /// call. The batch that reaches the bound is the last. What was counted survives a restart, as far as batches were
  /// acknowledged. Absent: no bound, and nobody counts.
  std::optional<std::uint64_t> meteredBytesPerDay{};
  /// For devices that nobody watches: an answer whose types break the protocol, and a push message before any position
  /// is known, are dropped with a line of level 6 in the log, where they otherwise stop the process. What was taken in
  /// before the fault stays, and the batch that such an answer belongs to is acknowledged, unless it is to be confirmed
  /// and the fault is that of "success".
  bool dropsProtocolBreaks = false;

  bool operator==(const DeliveryOptions&) const = default;
};

}  // namespace tarvo
