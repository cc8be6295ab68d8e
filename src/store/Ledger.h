#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <tarvo/Health.h>

#include "platform/foundation/Mutex.h"
#include "platform/persistence/NSManagedObjectContext.h"
#include "store/Gaps.h"
#include "store/LedgerText.h"

namespace tarvo {

/// What the parts of the SDK write down of their work, so that `Tarvo::health` can tell it.
///
/// Positions acknowledged without an answer, removed ones and gaps go into the store's metadata with the save that they
/// belong to: what tells of them comes before it, in the same block of the context. The rest goes along, and at a
/// checkpoint; a position, a try and an answered acknowledgement write nothing by themselves.
/// Threads: any; each operation is one step. Those with a context only inside its blocks. Errors: none; a text of the
/// metadata that cannot be read is replaced, with a line in the log.
class Ledger {
 public:
  using Context = platform::NSManagedObjectContext;

  Ledger();

  void didTry(platform::Date now);
  /// `answered`: by the backend itself. What the end of a transfer acknowledges is noted, but is no success.
  void didAcknowledge(Health::Range positions, bool answered, platform::Date now);
  /// `nextTry`: if nothing can end the wait before.
  void didFail(DeliveryError error, std::optional<platform::Date> nextTry);
  void didRemove(std::int64_t positions, std::int64_t upTo);
  /// A position has got its number and is about to be saved. `obstacle` is what keeps further ones away, if anything.
  void didStore(std::optional<GapCause> obstacle);
  /// Collection has been started or stopped, or what keeps positions away has changed.
  void obstacleIs(std::optional<GapCause> obstacle);
  /// Nothing is known any more, as on a new device; what the file has is the caller's.
  void forget();

  /// Takes up what the file has, until this process has the right to write: nobody else changes it then.
  void read(Context& context);
  /// What a save takes along.
  void willSave(Context& context);
  /// For a checkpoint: puts what has changed into the metadata, for the caller to save; false when that is nothing.
  bool refresh(Context& context);

  /// Positions that were acknowledged without an answer, and what stands for them, ascending; absent while what the
  /// file knows of them cannot be read.
  std::optional<std::vector<Health::Range>> givenUp(Context& context);

  Health::Positions positions() const;  ///< what is not counted in the store
  Health::Delivery delivery() const;
  /// `obstacle` as it is now.
  Gaps::List gaps(std::optional<GapCause> obstacle);

 private:
  LedgerText kept(const Gaps::Moment& now) const REQUIRES(mutex_);
  Gaps::List allGaps(const Gaps::Moment& now) const REQUIRES(mutex_);
  /// When an earlier process was last seen, as far as that agrees with the start of this one.
  std::optional<platform::Date> earlierEnd(const Gaps::Moment& now) const REQUIRES(mutex_);
  /// Since then, until this process started; absent for what is no gap.
  std::optional<Health::Gap> absence(const Gaps::Moment& now) const REQUIRES(mutex_);
  void put(Context& context, LedgerText text) REQUIRES(mutex_);

  mutable platform::Mutex mutex_;
  Gaps::Moment start_ GUARDED_BY(mutex_);
  LedgerText known_ GUARDED_BY(mutex_);  ///< its gaps are those of earlier processes
  Gaps gaps_ GUARDED_BY(mutex_);         ///< of this process
  std::optional<platform::Date> nextTry_ GUARDED_BY(mutex_);
  bool hasTried_ GUARDED_BY(mutex_) = false;  ///< in this process
  bool collects_ GUARDED_BY(mutex_) = false;  ///< collection has been started or stopped in this process
  bool isDue_ GUARDED_BY(mutex_) = false;     ///< the next save has to take the text along

  // Of the file.
  bool isRead_ GUARDED_BY(mutex_) = false;  ///< for good
  std::int64_t removedInFile_ GUARDED_BY(mutex_) = 0;
  /// When an earlier process was seen; some of these are to come where a clock was wrong, now or then.
  std::vector<platform::Date> seen_ GUARDED_BY(mutex_);
  std::optional<LedgerText> written_ GUARDED_BY(mutex_);  ///< by this process
  bool isUnreadableTold_ = false;                         ///< touched in blocks of the context only
};

}  // namespace tarvo
