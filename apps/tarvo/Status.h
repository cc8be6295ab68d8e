#pragma once

#include <string>

#include <tarvo/Tarvo.h>

#include "Home.h"

namespace tarvo::cli {

/// What `tarvo status --json` prints: how things stand in this home, as a JSON object.
/// Threads: any. Errors: none.
std::string statusText(const Tarvo& tarvo, const Home& home);

}  // namespace tarvo::cli
