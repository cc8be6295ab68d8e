#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/DeliveryOptions.h>
#include <tarvo/Health.h>
#include <tarvo/platform/Date.h>

#include "platform/foundation/Mutex.h"

namespace tarvo {

/// Says whether an upload pass may start, as the host's `DeliveryOptions` want it. With the options as constructed
/// every pass may.
///
/// It is passive: it starts nothing and has no timer, so what it holds back goes with the next event that comes once it
/// is open again. Spans are measured by the installed clock's monotonic time, days by its wall time.
/// Threads: any; each operation is one step, and the two functions that it is given are called with no lock held.
/// Errors: none.
class UploadGate {
 public:
  /// Who starts the pass.
  enum class Pass {
    event,           ///< a fix, the start of the engine, a push message, the acknowledgement of less than a full batch
    afterFullBatch,  ///< the acknowledgement of a batch that had no room for more; a flush: needs no interval
    host             ///< a call of the host: ends the wait and needs no interval, but keeps to the bound of bytes
  };
  static constexpr platform::Seconds kFirstBound{1}, kLongestWait{15 * 60}, kLongestRetryAfter{24 * 60 * 60};

  /// Draws evenly from 0 to 1, 1 excluded.
  using Draw = std::function<double()>;
  /// Whether a packet could leave towards the backend now. Must be cheap, and not wait for a resolver.
  using Reachable = std::function<bool()>;
  UploadGate(Draw draw, Reachable reachable);

  /// Whether the pass may start. A host's call, and a network that has come back since the failure, end the wait here.
  bool admits(Pass pass, const DeliveryOptions& options);
  /// Whether the bound of bytes holds everything back.
  bool isUsedUp(const DeliveryOptions& options) const;
  /// A batch is being posted: the interval counts from now. A pass that finds nothing to post leaves it alone, or the
  /// fix that is stored a moment later would wait for it.
  void posted();

  /// A batch was acknowledged: no wait.
  void succeeded();
  /// A try has failed, so the next one waits: a random part of a bound that doubles with each failure, but no less than
  /// the answer asks for, and the longest if the backend does not accept who is asking.
  void failed(DeliveryError error, std::optional<platform::Seconds> retryAfter);
  /// Until when events wait because of failures, by the wall clock; absent when they do not, or no more.
  std::optional<platform::Date> nextTry(const DeliveryOptions& options) const;
  /// As constructed, but for the day's bytes: what they cost is not forgotten with the user.
  void forget();

  // The day's bytes on metered networks. Nobody counts them, and they are not kept, while there is no bound.
  /// Whether `restore` was called.
  bool isRestored() const;
  /// Takes up what an earlier process has kept, if it is of today; a text that is none is nothing.
  void restore(std::string_view kept);
  /// What to keep.
  std::string kept() const;
  void addBytes(std::uint64_t bytes);
  std::uint64_t bytesToday() const;

 private:
  struct Wait {
    platform::Seconds until{};  ///< monotonic
    bool wasReachable = true;
  };
  struct Day {
    std::int64_t number = 0;  ///< since 1970
    std::uint64_t bytes = 0;
  };
  bool isOver(const Wait& wait) const;
  bool usesUp(const DeliveryOptions& options) const REQUIRES(mutex_);
  static Day startedOver(const Day& day);

  const Draw draw_;
  const Reachable reachable_;
  mutable platform::Mutex mutex_;
  int failures_ GUARDED_BY(mutex_) = 0;  ///< since the wait was ended last
  std::optional<Wait> wait_ GUARDED_BY(mutex_);
  std::optional<platform::Seconds> lastPost_ GUARDED_BY(mutex_);  ///< monotonic
  Day day_ GUARDED_BY(mutex_);
  bool restored_ GUARDED_BY(mutex_) = false;
};

}  // namespace tarvo
