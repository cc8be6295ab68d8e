#pragma once

#include <optional>
#include <vector>

#include "sandbox/derive/Book.h"
#include "sandbox/derive/Records.h"

namespace tarvo::sandbox::derive {

/// Keeps the stops and the trips between them in step with the positions.
class Trips {
 public:
  /// Both outlive it.
  Trips(Records& records, Book& book) : records_(records), book_(book) {}

  /// Takes in positions that are in the records already, in any order.
  void takeIn(std::vector<Point> fresh);

  bool stopsChanged() const { return stopsChanged_; }
  bool tripsChanged() const { return tripsChanged_; }

 private:
  bool rederive(double from, double to);
  std::optional<KeptStop> lastSeenBefore(double time);
  std::optional<KeptStop> firstAnchoredAfter(double time);
  std::optional<KeptStop> follow(std::optional<KeptStop> previous, const std::vector<Stop>& found);
  std::int64_t connect(const std::optional<KeptStop>& previous, const KeptStop& next);
  std::int64_t numberFor(const Row& trip);
  void keep(const KeptStop& stop);

  Records& records_;
  Book& book_;
  std::vector<KeptStop> oldStops_;  ///< of a stretch that is derived anew, until they are found again
  std::vector<Row> oldTrips_;
  bool stopsChanged_ = false, tripsChanged_ = false;
};

}  // namespace tarvo::sandbox::derive
