#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>

namespace tarvo::simulation {

/// Rounds to a multiple of 2^-32. What comes out of log, exp or cos may differ in its last bits from one machine to
/// the next; through this it is the same everywhere.
double settled(double value);

/// A stream of random numbers that is the same on every machine: the standard fixes what std::mt19937_64 gives, but not
/// what its distributions make of it, so these are its own.
/// Two draws never stand in one expression whose parts a compiler may take in any order, as arguments of a call are.
/// Threads: one. Copies go on alike.
class Random {
 public:
  /// Another stream for each list: the seed of a simulation, then what the stream is for.
  explicit Random(std::initializer_list<std::uint64_t> seeds);

  /// From 0 to just below 1.
  double uniform();
  double between(double low, double high);
  bool chance(double probability);

  /// Standard normal, from -8.6 to 8.6 (Box and Muller 1958).
  double normal();
  /// Normal, cut off at `reach` standard deviations.
  double around(double mean, double deviation, double reach = 3);

 private:
  std::mt19937_64 engine_;
};

}  // namespace tarvo::simulation
