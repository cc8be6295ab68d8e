#pragma once

#include <string>

#include <tarvo/Health.h>

namespace tarvo::unit {

/// How a unit is, on one line for people: what its receiver does, then where its positions are: "receiving from gpsd at
/// localhost:2947; 1,204 positions, 3 unsent; last acknowledged 12 s ago".
std::string statusLine(const std::string& receiver, const Health& health, platform::Date now);

}  // namespace tarvo::unit
