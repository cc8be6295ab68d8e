#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <tarvo/Records.h>
#include <tarvo/platform/UserDefaults.h>
#include <tarvo/platform/Value.h>

#include "store/Entity.h"

namespace tarvo {

/// A place that the backend derived: a point and the zone around it. Not de-duplicated, on purpose: a list that is
/// ingested again adds copies.
///
/// Threads and errors: see Entity.
class PointOfInterest : public Entity<PointOfInterest> {
 public:
  static constexpr std::string_view kEntity = "PointOfInterest";
  using Entity::Entity;

  static std::shared_ptr<PointOfInterest> addPOI(const platform::Dictionary& poi, Context& context);
  /// Highest identifier first.
  static List getPOIs(Context& context);
  static void removePOIs(Context& context);

  PointOfInterestRecord record() const;
  /// One line for the log, without the GeoJSON texts.
  std::string description() const;
  platform::UserDefaults& defaults() const { return platform::UserDefaults::standard(); }
};

}  // namespace tarvo
