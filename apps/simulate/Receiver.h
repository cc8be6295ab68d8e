#pragma once

#include <cstdint>
#include <optional>

#include "Random.h"
#include "Roads.h"

namespace tarvo::simulation {

/// What a receiver tells; `ms` since 1970 (UTC), metres, m/s, degrees from north.
struct Fix {
  std::int64_t ms = 0;
  Coordinate at;
  double altitude = 0, speed = 0, course = 0, accuracy = 0;
};

/// A satellite receiver in a phone: late and poor when it wakes, worse between high houses, silent in tunnels, wrong by
/// far now and then. Its error is a first-order Gauss-Markov process in each direction, so that neighbouring fixes err
/// alike.
/// Threads: one. Times do not decrease.
class Receiver {
 public:
  explicit Receiver(Random random);

  /// It was off and looks for satellites again.
  void wake(std::int64_t ms);

  /// Absent while it sees too few satellites.
  std::optional<Fix> observe(std::int64_t ms, const Spot& spot, double speed, Sky sky);

  /// Of a phone that lies somewhere indoors, from networks about it.
  Fix indoors(std::int64_t ms, const Spot& spot);

 private:
  void pass(std::int64_t ms, Sky sky);
  bool strays(Sky sky);
  Fix fixAt(std::int64_t ms, const Spot& spot, double east, double north);

  Random random_;
  std::int64_t now_ = 0, ready_ = 0;
  double east_ = 0, north_ = 0;  ///< the error in units of its deviation
  double deviation_ = 3;         ///< metres in each direction
  double searching_ = 0;         ///< further metres, fading
  double up_ = 0, course_ = 0;
  double strayEast_ = 0, strayNorth_ = 0;
  int strayFixes_ = 0;
  bool covered_ = false;
};

}  // namespace tarvo::simulation
