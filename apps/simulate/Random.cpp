#include "Random.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace tarvo::simulation {
namespace {

/// The mixing step of SplitMix64 (Steele, Lea and Flood 2014): seeds that differ in one bit give unlike streams.
std::uint64_t mixed(std::uint64_t value) {
  value += 0x9e3779b97f4a7c15;
  value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
  value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
  return value ^ (value >> 31);
}

std::uint64_t mixed(std::initializer_list<std::uint64_t> seeds) {
  std::uint64_t whole = 0;
  for (const std::uint64_t seed : seeds) whole = mixed(whole ^ mixed(seed));
  return whole;
}

}  // namespace

double settled(double value) { return std::round(value * 0x1p32) * 0x1p-32; }

Random::Random(std::initializer_list<std::uint64_t> seeds) : engine_(mixed(seeds)) {}

double Random::uniform() { return static_cast<double>(engine_() >> 11) * 0x1p-53; }

double Random::between(double low, double high) { return low + (high - low) * uniform(); }

bool Random::chance(double probability) { return uniform() < probability; }

double Random::normal() {
  const double distance = std::sqrt(-2 * std::log(1 - uniform()));
  return settled(distance * std::cos(2 * std::numbers::pi * uniform()));
}

double Random::around(double mean, double deviation, double reach) {
  return mean + deviation * std::clamp(normal(), -reach, reach);
}

}  // namespace tarvo::simulation
