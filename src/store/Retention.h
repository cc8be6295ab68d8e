#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include <tarvo/StorageLimits.h>

#include "platform/persistence/NSManagedObjectContext.h"

namespace tarvo {

class Ledger;
class ObjectStore;

/// Keeps the stored positions within the limits that the host has set: takes acknowledged ones, the oldest first, and
/// tells the ledger. Has the log files looked at, too.
///
/// Always stay: what awaits its upload, what the end of a transfer has acknowledged without an answer (the backend may
/// not have it), the newest position by fix time, which events and push messages store again, and the one with the
/// highest number. The positions of one transaction are at most 1000; while there is more to take,
/// each save is followed by another, else limits are looked at each 10 minutes of the monotonic clock and each 1000
/// saves.
/// Threads: only inside blocks of the store's context. Owns nothing. Errors: logged; the next look tries again.
class Retention {
 public:
  Retention(ObjectStore& store, Ledger& ledger) : store_(store), ledger_(ledger) {}

  /// After a save that went well. Does nothing while no limit is set.
  void didSave();

 private:
  bool isDue(const StorageLimits& limits);
  void lookAtLogs();
  std::optional<std::int64_t> lastStoredUntil(platform::Date moment);
  void keepStoreSmall(std::uint64_t bound, std::int64_t last);
  /// Those that match `old`, up to number `last`.
  void remove(const std::vector<platform::NSPredicate>& old, std::int64_t last, std::size_t most);
  std::size_t removeAmong(platform::NSManagedObjectContext::Numbers numbers,
                          const std::vector<platform::NSPredicate>& old, std::size_t most);

  ObjectStore& store_;
  Ledger& ledger_;
  StorageLimits limits_;  ///< of the latest look
  std::optional<platform::Seconds> lookedAt_, logsLookedAt_;
  int saves_ = 0;  ///< since then
  bool isMoreLeft_ = false;
};

}  // namespace tarvo
