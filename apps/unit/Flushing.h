#pragma once

#include <functional>
#include <string>

#include <tarvo/FlushResult.h>
#include <tarvo/platform/Date.h>

#include "unit/Loop.h"

namespace tarvo::unit {

/// Why a flush has left something, for people; empty for what is delivered.
std::string reasonOf(FlushResult result);

/// Runs `Tarvo::flush` on a thread of its own beside the loop, which goes on meanwhile; `done` comes on the loop. A
/// flush that is under way when the loop ends goes on to the end of the process, for nothing can end it.
/// Threads: main. Errors: std::system_error where there is no thread.
void flushBeside(const Loop& loop, platform::Seconds bound, std::function<void(FlushResult)> done);

}  // namespace tarvo::unit
