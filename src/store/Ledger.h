#pragma once

#include <cstdint>
#include <optional>

#include <tarvo/Health.h>

#include "platform/foundation/Guarded.h"

namespace tarvo {

/// What the parts of the SDK write down of their work, so that `Tarvo::health` can tell it.
///
/// Threads: any; each operation is one step. Errors: none.
class Ledger {
 public:
  void didTry(platform::Date now);
  /// `answered`: by the backend itself, not by the end of a transfer.
  void didAcknowledge(Health::Range positions, bool answered, platform::Date now);
  void didFail(DeliveryError error, std::optional<platform::Date> nextTry);
  void didRemove(std::int64_t positions, std::int64_t upTo);

  /// As in a new process.
  void forget();

  Health::Positions positions() const { return positions_.get(); }  ///< what is not counted in the store
  Health::Delivery delivery() const { return delivery_.get(); }

 private:
  platform::Guarded<Health::Positions> positions_;
  platform::Guarded<Health::Delivery> delivery_;
};

}  // namespace tarvo
