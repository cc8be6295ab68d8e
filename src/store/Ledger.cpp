#include "store/Ledger.h"

#include <algorithm>

namespace tarvo {

void Ledger::didTry(platform::Date now) {
  delivery_.update([&](auto& delivery) { delivery.lastTry = now; });
}

void Ledger::didAcknowledge(Health::Range positions, bool answered, platform::Date now) {
  delivery_.update([&](auto& delivery) {
    delivery.lastAcknowledgement = now;
    delivery.lastError = DeliveryError::none;
    delivery.triesSince = 0;
    delivery.nextTry.reset();
  });
  if (!answered) positions_.update([&](auto& known) { known.acknowledgedWithoutAnswer.push_back(positions); });
}

void Ledger::didFail(DeliveryError error, std::optional<platform::Date> nextTry) {
  delivery_.update([&](auto& delivery) {
    delivery.lastError = error;
    ++delivery.triesSince;
    delivery.nextTry = nextTry;
  });
}

void Ledger::didRemove(std::int64_t positions, std::int64_t upTo) {
  positions_.update([&](auto& known) {
    known.removed += positions;
    known.removedUpTo = std::max(known.removedUpTo.value_or(upTo), upTo);
  });
}

void Ledger::forget() {
  positions_.set({});
  delivery_.set({});
}

}  // namespace tarvo
