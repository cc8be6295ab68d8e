#include "records/LatestPrediction.h"

#include <utility>

namespace tarvo {

using platform::MutexLock;

LatestPrediction& LatestPrediction::shared() {
  static auto* prediction = new LatestPrediction;
  return *prediction;
}

Trip LatestPrediction::value() const {
  MutexLock lock(mutex_);
  return trip_;
}

std::int64_t LatestPrediction::id() const {
  MutexLock lock(mutex_);
  return trip_.id;
}

void LatestPrediction::store(Trip prediction) {
  MutexLock lock(mutex_);
  std::swap(trip_, prediction);
}

}  // namespace tarvo
