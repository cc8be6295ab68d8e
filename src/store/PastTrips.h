#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <tarvo/Records.h>
#include <tarvo/platform/Value.h>

#include "store/Entity.h"

namespace tarvo {

/// A past trip that the backend rebuilt from the uploaded positions; replaced when it comes again.
///
/// Threads and errors: see Entity.
class PastTrips : public Entity<PastTrips> {
 public:
  static constexpr std::string_view kEntity = "PastTrips";
  using Entity::Entity;

  /// Missing coordinates become 0, unreadable times absent.
  static std::shared_ptr<PastTrips> addLastTrip(const platform::Dictionary& trip, Context& context);
  static void removeTripIfExist(Context& context, std::int64_t pasttripID);
  /// The one with the highest identifier.
  static std::shared_ptr<PastTrips> getLastPastTrip(Context& context);
  /// Whether there is a store, and no trip in it that has an identifier. Writes nothing to the log.
  static bool lackIdentifiers(Context& context);
  /// Those that start between the two moments, both included, by ascending identifier.
  static List getLocationHistoryExtraPolated(Context& context, platform::Date since, platform::Date until);
  static void removeData(Context& context);

  PastTripRecord record() const;
  std::optional<std::int64_t> pasttripID() const;
  /// One line for the log, without the route's text.
  std::string description() const;
};

}  // namespace tarvo
