#pragma once

#include <array>

namespace tarvo {

/// Look-ahead times of the regions of a ring, seconds.
inline constexpr std::array<double, 5> kLookAheadSeconds{0, 5, 10, 20, 30};
/// Multiples of half the horizontal accuracy: the ring of a fix without a usable speed.
inline constexpr std::array<double, 9> kAccuracyFractions{0.1, 0.2, 0.3, 0.5, 1, 2, 3, 4, 5};

/// Whether the fix's speed can size a ring: anything but exactly -1 (invalid) and 0.
bool isUsableSpeed(double metresPerSecond);

/// The speed that a measured one is rounded up to, metres per second: walking, running, town, road, motorway, train,
/// aircraft.
double assumedSpeed(double metresPerSecond);

/// Metres that a device may be away after `lookAhead` seconds more: one and a half times the accuracy plus the way
/// since the fix. `age` may be negative.
double ringRadius(double horizontalAccuracy, double lookAhead, double age, double speed);

/// Metres; `fraction` of half the accuracy.
double fallbackRadius(double horizontalAccuracy, double fraction);

/// Metres per second from the ring's centre since it was armed; what the division gives, infinity and NaN included.
double measuredSpeed(double metres, double seconds);

}  // namespace tarvo
