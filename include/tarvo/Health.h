/// @file
/// Where the positions of a device are, what holds them up, and why some are missing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <tarvo/Export.h>
#include <tarvo/platform/Date.h>
#include <tarvo/platform/LocationService.h>

namespace tarvo {

/// Why the last try to upload positions has failed.
enum class DeliveryError {
  none,          ///< it has not failed
  offline,       ///< no network, or no way to the host
  unreachable,   ///< the host's name is not known, or nobody answers there
  timedOut,      ///< silence for too long
  untrusted,     ///< TLS: no certificate that counts, no common version
  broken,        ///< the connection ended early, or what came was no HTTP
  redirected,    ///< the answer came from another address
  unauthorized,  ///< 401 or 403: key, user or secret are not accepted
  throttled,     ///< 429, or another status that asks with "Retry-After"
  refused,       ///< any other status than 200
  rejected,      ///< 200, and "success" is not true
};

/// Why there are no positions of a span of time.
enum class GapCause {
  notRunning,     ///< no process collected on this home
  stopped,        ///< the host has stopped collection, or the mode collects nothing
  notPermitted,   ///< the user's permission was missing
  background,     ///< in the background the SDK waited for a significant change or for the border of a region
  standingStill,  ///< fixes came, and none lay further from the last than the distance filter
  refusedFixes,   ///< fixes came, and none could be used
  receiverSilent  ///< no fix came, or none for more than half of the span
};

/// What a support desk needs to know of a device: where its positions are, what holds them up, and why some are
/// missing. Counts and spans are those of this home; the ones that say so are of this process. What an earlier process
/// knew of tries and acknowledgements is told as far as it ended with `Tarvo::waitUntilIdle`, or had something to keep.
struct Health {
  /// Positions by their numbers, both included.
  struct Range {
    std::int64_t first = 0;  ///< the lowest of them
    std::int64_t last = 0;   ///< the highest
    bool operator==(const Range&) const = default;
  };
  /// A span without a stored position; `until` is absent while it lasts.
  struct Gap {
    platform::Date since;                       ///< the position before, or when the cause began
    std::optional<platform::Date> until;        ///< the next position, or when the cause ended
    GapCause cause = GapCause::receiverSilent;  ///< what kept positions away
    bool operator==(const Gap&) const = default;
  };

  /// How many positions there are, and how far they have come.
  struct Positions {
    std::int64_t stored = 0;                           ///< in the store's file; the next three are of these
    std::int64_t unsent = 0;                           ///< never posted
    std::int64_t awaiting = 0;                         ///< posted, not acknowledged
    std::int64_t acknowledged = 0;                     ///< the rest
    std::int64_t unsaved = 0;                          ///< in memory alone, since saving failed
    std::optional<platform::Seconds> oldestUnsentAge;  ///< since the storage of the oldest that is not acknowledged
    /// Acknowledged although no answer came, which only `DeliveryOptions::confirmed` prevents; whether the backend has
    /// them is not known. Ascending; when there are too many, the oldest neighbours are told as one.
    std::vector<Range> acknowledgedWithoutAnswer;
    std::int64_t removed = 0;                 ///< by `StorageLimits`
    std::optional<std::int64_t> removedUpTo;  ///< the highest number among them
  };
  Positions positions;  ///< of this home

  /// How uploading goes.
  struct Delivery {
    std::optional<platform::Date> lastTry;              ///< when the last batch was posted
    std::optional<platform::Date> lastAcknowledgement;  ///< by an answer
    DeliveryError lastError = DeliveryError::none;      ///< of the last try; none once one has succeeded
    std::int64_t triesSince = 0;                        ///< that failed since the last acknowledgement
    /// Not before, after a failure. The interval and the bound of `DeliveryOptions` are not told here.
    std::optional<platform::Date> nextTry;
    std::uint64_t bytesToday = 0;  ///< sent and received for batches, counted while the network is metered and bounded
  };
  Delivery delivery;  ///< of this home

  platform::LocationService::Statistics fixes;  ///< of this process

  /// The store's file.
  struct Store {
    bool available = false;   ///< false also while another process writes and this one wants to
    std::uint64_t bytes = 0;  ///< the file and its write-ahead log
    /// Why it is not available, else that of this process's latest save; absent once one has succeeded.
    std::optional<std::string> lastError;
  };
  Store store;  ///< of this home

  /// The log files.
  struct Log {
    std::uint64_t bytes = 0;         ///< of all of them
    std::uint64_t linesDropped = 0;  ///< by this process: no room, no folder, or a file that has gone
  };
  Log log;  ///< of this home

  /// The latest 32 that are longer than 5 min, oldest first, on the device's clock. Setting that clock makes none. A
  /// silence whose cause changes is several gaps; a cause that lasted for less than 5 min is told as the next one. A
  /// process that has neither started nor stopped collection tells what the file has.
  std::vector<Gap> gaps;
};

/**@{*/
/// The name in `tarvo status --json` and in the store: that of the enumerator in snake_case.
TARVO_API const char* nameOf(DeliveryError error);
TARVO_API const char* nameOf(GapCause cause);
/**@}*/

}  // namespace tarvo
