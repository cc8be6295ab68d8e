#pragma once

#include <optional>

#include <tarvo/platform/Date.h>

#include "platform/foundation/Mutex.h"

namespace tarvo {

/// The one upload channel of the process: held while a batch is in flight, free for the taking again 180 s after it
/// was last taken.
///
/// A bare flag with a time, no owner: an answer frees it whoever holds it by then, which the recovery from lost
/// answers relies on. Threads: any; taking it is one step.
class UploadChannel {
 public:
  static constexpr platform::Seconds kExpiry{180};

  struct Attempt {
    bool wasLocked;
    platform::Seconds elapsed;  ///< since it was last taken, by the installed clock; negative after a set back
    bool taken;
  };
  /// Takes the channel if it is free or stale.
  Attempt tryTake(platform::Date now);
  void release() { setLocked(false); }

  bool locked() const;
  void setLocked(bool locked);
  /// The moment of the first access, of an attempt or of this call, until it is taken.
  platform::Date takenAt() const;
  void setTakenAt(platform::Date date);

 private:
  mutable platform::Mutex mutex_;
  bool locked_ GUARDED_BY(mutex_) = false;
  mutable std::optional<platform::Date> takenAt_ GUARDED_BY(mutex_);
};

}  // namespace tarvo
