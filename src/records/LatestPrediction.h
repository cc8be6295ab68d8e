#pragma once

#include <tarvo/Trip.h>

#include "platform/foundation/Mutex.h"

namespace tarvo {

/// The one home of the latest prediction: the backend client changes it, the host reads copies.
///
/// Threads: any; each operation is one step. Lives as long as the process.
class LatestPrediction {
 public:
  static LatestPrediction& shared();

  Trip value() const;
  std::int64_t id() const;
  void store(Trip prediction);

 private:
  LatestPrediction() = default;
  mutable platform::Mutex mutex_;
  Trip trip_ GUARDED_BY(mutex_);
};

}  // namespace tarvo
