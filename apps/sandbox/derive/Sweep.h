#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <vector>

#include "sandbox/derive/Geo.h"
#include "sandbox/derive/Records.h"

namespace tarvo::sandbox::derive {

/// A position that counts; accuracy in metres, made up where it is unknown.
struct Fix {
  double time = 0, accuracy = 0;
  Place2D place;
  Vec at;
};

/// Whether it has a place and a time at all.
bool isSound(const Point& point);

/// What separates two trips: a stay, or a silence in which nobody knows where the host was. Times in seconds since
/// 1970.
struct Stop {
  double anchor = 0;     ///< its first position: a sweep that starts there finds it again
  double seen = 0;       ///< the position by which it was found
  double arrival = 0;    ///< ends the trip before
  double departure = 0;  ///< begins the trip behind; grows while the host stays
  Place2D centre;        ///< of a stay
  bool lost = false;     ///< a silence
};

/// A stay that goes on.
struct Stay : Stop {
  Vec sum;
  double count = 0;
  double inside = 0, near = 0, announce = 0;  ///< times: last within reach, last near the centre, next told of
};

/// Keeps the positions that can be true: not too inaccurate, and reached at a speed that there is.
class Filter {
 public:
  /// The positions that are known to count now, none to a few, in the order of time; a position counts late when it
  /// takes the next ones to believe it.
  std::vector<Fix> take(const Point& point);

 private:
  friend class Sweep;
  std::optional<Fix> last_;
  std::vector<Fix> doubted_;
};

/// Goes along positions once, in the order of time, and finds the stops. What it has to remember is small and does not
/// grow, so that it can rest as a text between two batches.
class Sweep {
 public:
  Sweep() = default;
  explicit Sweep(const nlohmann::json& state);
  nlohmann::json state() const;

  /// Appends each stop that is found, found to have lasted longer, or over; the last entry for an anchor is the valid
  /// one.
  void take(const Point& point, std::vector<Stop>& stops);

  /// The stay that goes on; its departure is the time of the newest position in it.
  std::optional<Stop> staying() const;

 private:
  void add(const Fix& fix, std::vector<Stop>& stops);
  void afterSilence(const Fix& fix, std::vector<Stop>& stops);
  void move(const Fix& fix, std::vector<Stop>& stops);
  void stand(const Fix& fix, std::vector<Stop>& stops);
  void begin(std::vector<Fix> fixes, std::vector<Stop>& stops);
  void end(std::vector<Stop>& stops);

  Filter filter_;
  std::optional<Fix> last_;  ///< the newest that counts
  std::vector<Fix> window_;  ///< those from which a stay can begin; while staying, those that may be its end
  std::optional<Stay> stay_;
};

}  // namespace tarvo::sandbox::derive
